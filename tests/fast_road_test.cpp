// The targetcli wrapper's own road: which command lines may take it, and what keeps a command from
// it. That it does what targetcli does is shown on the kernel, by tests/vm/fast_road.sh.

#include <gmock/gmock.h>

#include <functional>
#include <sstream>

#include "tests/support/FakeConfigfs.h"
#include "tests/support/TempDirectory.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/FastForms.h"

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::Not;

const std::string kTarget = "iqn.2026-01.com.example:t";
const std::string kHostA = "iqn.2026-01.com.example:a";
const std::string kHostB = "iqn.2026-01.com.example:exists";

// T, A and B stand for the names above.
std::vector<std::string> Words(std::string text) {
    const std::pair<std::string, std::string> names[] = {
        {"@T", kTarget}, {"@A", kHostA}, {"@B", kHostB}};
    for (const auto& [mark, name] : names)
        for (size_t at; (at = text.find(mark)) != std::string::npos;)
            text.replace(at, mark.size(), name);
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

TEST(FastRoadForms, OnlyLinesOfThePlugInAreKnown) {
    const struct {
        const char* line;
        const char* name;
    } rows[] = {
        {"--version", "version"},
        {"--version -x", nullptr},
        {"/iscsi create @T", "target create"},
        {"/iscsi create @T tag=1", nullptr},
        {"/iscsi create", nullptr},
        {"/iscsi create iqn.2026-13.com.example:t", nullptr},
        {"/iscsi create iqn.2026-01.com:t", nullptr},
        {"/iscsi create iqn.2026-01.com.example:T", nullptr},
        {"/iscsi create iqn.2026-01.com.example:a_b", nullptr},
        {"/iscsi create eui.0123456789abcdef", nullptr},
        {"/iscsi/@T/tpg1/acls create add_mapped_luns=false wwn=@A", "ACL create"},
        {"/iscsi/@T/tpg1/acls create wwn=@A add_mapped_luns=false", nullptr},
        {"/iscsi/@T/tpg2/acls create add_mapped_luns=false wwn=@A", nullptr},
        {"/iscsi/@T/tpg1/acls/@A create tpg_lun_or_backstore=255 mapped_lun=255", "mapping create"},
        {"/iscsi/@T/tpg1/acls/@A create tpg_lun_or_backstore=1 mapped_lun=2", nullptr},
        {"/iscsi/@T/tpg1/acls/@A create tpg_lun_or_backstore=256 mapped_lun=256", nullptr},
        {"/iscsi/@T/tpg1/acls/@A delete mapped_lun=007", nullptr},
        {"/iscsi/@T/tpg1/acls/@A delete mapped_lun=+7", nullptr},
        {"/iscsi/@T/tpg1/luns delete lun=-1", nullptr},
        {"/iscsi/@T/tpg1/luns delete lun=0", "LUN delete"},
        {"/iscsi/@T/x/tpg1/luns ls", nullptr},
        {"/iscsi/@T/tpg1/luns create storage_object=/backstores/user:h/o lun=1", "LUN create"},
        {"/iscsi/@T/tpg1/luns create storage_object=/backstores/ramdisk/o", nullptr},
        {"/backstores/fileio create file_or_dev=/d/f name=o wwn=s", "file create"},
        {"/backstores/fileio create file_or_dev=d/f name=o wwn=s", nullptr},
        {"/backstores/fileio create file_or_dev=/d/f name=o", nullptr},
        {"/backstores/fileio create file_or_dev=/d/f name=.. wwn=s", nullptr},
        {"/backstores/fileio create file_or_dev=/d,f name=o wwn=s", nullptr},
        {"/backstores/user:h create cfgstring=c name=o size=512 wwn=s", "user create"},
        {"/backstores/user:h create cfgstring=c name=o size=1M wwn=s", nullptr},
        {"/backstores/block delete name=o", "block delete"},
    };
    for (const auto& row : rows) {
        const auto line = CommandLine::Parse(Words(row.line));
        EXPECT_STREQ(line ? line->name : nullptr, row.name) << row.line;
    }
}

/// A file LUN 3 that host A sees, and host B with nothing; a file `other` that no object has.
struct FastRoad : testing::Test {
    TempDirectory dir;
    FakeConfigfs tree{dir.path / "target"};
    std::string file = dir.path / "file";

    FastRoad() {
        for (const char* name : {"file", "other"}) {
            std::ofstream(dir.path / name) << "";
            fs::resize_file(dir.path / name, 4096);
        }
        tree.AddTarget(kTarget);
        FakeConfigfs::Write(Group() / "attrib/authentication", "0");
        fs::create_directories(tree.Root() / "core/alua");
        tree.AddObject({"fileio", "f", file, 4096, "s"});
        tree.AddLun(kTarget, 3, "f");
        FakeConfigfs::Write(tree.Lun(kTarget, 3) / "alua_tg_pt_gp",
                            "TG Port Alias: default_tg_pt_gp");
        for (const std::string& host : {kHostA, kHostB})
            std::ofstream(MakeDirectory(Group() / "acls" / host) / "tag") << "";
        tree.Map(kTarget, kHostA, 3);
    }

    fs::path Group() const { return tree.Group(kTarget); }
    static fs::path MakeDirectory(const fs::path& path) {
        fs::create_directories(path);
        return path;
    }
    Answer Run(const std::string& text) const {
        const std::pair<Form, decltype(&CreateLun)> handlers[] = {
            {Form::kTargetCreate, CreateTarget},   {Form::kTargetDelete, DeleteTarget},
            {Form::kAclCreate, CreateAcl},         {Form::kMappingCreate, CreateMapping},
            {Form::kMappingDelete, DeleteMapping}, {Form::kLunCreate, CreateLun},
            {Form::kLunDelete, DeleteLun},         {Form::kLunList, ListLuns},
            {Form::kFileCreate, CreateFile},       {Form::kBackstoreDelete, DeleteBackstore}};
        const auto line = CommandLine::Parse(Words(text));
        for (const auto& [form, handler] : handlers)
            if (line && line->form == form)
                return handler(*line, tree.Root());
        throw std::logic_error(text);
    }
    std::vector<std::string> Paths() const {
        std::vector<std::string> paths;
        for (const auto& entry : fs::recursive_directory_iterator(dir.path))
            paths.push_back(entry.path());
        std::sort(paths.begin(), paths.end());
        return paths;
    }
    std::string CreateLine(const std::string& path, const std::string& rest) const {
        return "/backstores/fileio create file_or_dev=" + path + " " + rest;
    }
};

TEST_F(FastRoad, TheIdenticalObjectIsKnown) {
    const std::string lines[] = {
        "/iscsi create @T", "/iscsi/@T/tpg1/acls create add_mapped_luns=false wwn=@A",
        "/iscsi/@T/tpg1/acls/@A create tpg_lun_or_backstore=3 mapped_lun=3",
        "/iscsi/@T/tpg1/luns create storage_object=/backstores/fileio/f lun=3",
        CreateLine(file, "name=f wwn=s")};
    const auto before = Paths();
    for (const std::string& line : lines) {
        const Answer answer = Run(line);
        EXPECT_EQ(answer.status, 1) << line;
        EXPECT_THAT(answer.err, HasSubstr("already exists")) << line;
    }
    EXPECT_EQ(Paths(), before);
}

TEST_F(FastRoad, WhateverIsNotCertainIsLeftAlone) {
    const std::string map = "/iscsi/@T/tpg1/acls/@A create tpg_lun_or_backstore=3 mapped_lun=3";
    const std::string mapB = "/iscsi/@T/tpg1/acls/@B create tpg_lun_or_backstore=3 mapped_lun=3";
    const std::string lun = "/iscsi/@T/tpg1/luns create storage_object=/backstores/fileio/f";
    const std::string other = dir.path / "other";
    const fs::path mapping = tree.Mapping(kTarget, kHostA, 3);
    const fs::path object = tree.ObjectDirectory("f");
    const auto write = [](const fs::path& path, const char* text) {
        return [=] { FakeConfigfs::Write(path, text); };
    };
    const auto make = [](const fs::path& path) { return [=] { MakeDirectory(path); }; };
    const auto nothing = [] {};
    const struct {
        std::string line;
        std::function<void()> bend;
        const char* why;
    } rows[] = {
        {map, write(mapping / "write_protect", "1"), "another mapping"},
        {map, write(Group() / "acls" / kHostA / "tag", "team"), "a tag"},
        {map, [&] { fs::create_symlink(object, mapping / "second"); },
         "mapping without its one link"},
        {mapB, write(object / "info", "readonly: 1"), "read-only"},
        {mapB, make(tree.Mapping(kTarget, kHostB, 3)), "mapping without its one link"},
        {"/iscsi/@T/tpg1/acls/@B delete mapped_lun=3", nothing, "no such mapping"},
        {"/iscsi/@T/tpg1/acls create add_mapped_luns=false wwn=@Ac",
         write(Group() / "attrib/generate_node_acls", "1"), "needs no ACLs"},
        {"/iscsi/@T/tpg1/luns ls", make(Group() / "../tpgt_2"), "another portal group"},
        {"/iscsi/@T/tpg1/luns ls", make(tree.Lun(kTarget, 4)), "LUN without its one link"},
        {"/iscsi/@T/tpg1/luns ls", write(object / "enable", "0"), "isn't enabled"},
        {"/iscsi/@T/tpg1/luns ls",
         write(tree.Lun(kTarget, 3) / "alua_tg_pt_gp", "TG Port Alias: mine"),
         "another port group"},
        {lun + " lun=4", nothing, "another number"},
        {lun, write(object / "enable", "0"), "that is enabled"},
        {"/iscsi/@T/tpg1/luns delete lun=4", nothing, "no such LUN"},
        {"/iscsi/@T/tpg1/luns delete lun=3", write(Group() / "acls" / kHostB / "tag", "team"),
         "a tag"},
        {"/iscsi/@T/tpg1/luns delete lun=3",
         [&] { fs::create_symlink(object, tree.Lun(kTarget, 3) / "second"); },
         "LUN without its one link"},
        {"/iscsi create @Tt", make(Group() / "np/127.0.0.1:3260"), "a part of the addresses"},
        {"/iscsi create @T", write(Group() / "enable", "0"), "the target is there and differs"},
        {"/iscsi delete @T", write(Group() / "np/0.0.0.0:3260/iser", "1"), "another transport"},
        {"/iscsi delete @Tt", nothing, "no such target"},
        {CreateLine(file, "name=f wwn=t"), nothing, "the object is there and differs"},
        {CreateLine(file, "name=g wwn=s"), nothing, "another object's already"},
        {CreateLine(other, "name=f wwn=s"), nothing, "the object is there and differs"},
        {CreateLine(file, "name=g wwn=g"), write(object / "udev_path", ""), "doesn't say its path"},
        {CreateLine(file, "name=f wwn=s"), [&] { fs::resize_file(file, 8192); },
         "the object is there and differs"},
        {CreateLine(other, "name=g wwn=g"), [&] { fs::resize_file(other, 4000); },
         "no whole number of blocks"},
        {CreateLine(dir.path / "link", "name=g wwn=g"),
         [&] { fs::create_symlink(other, dir.path / "link"); }, "links in it"},
        {CreateLine(other, "name=g wwn=g"), make(tree.Root() / "core/user_7"), "just one object"},
        {CreateLine(other, "name=g wwn=g"), make(object / "../second"), "just one object"},
        {CreateLine(other, "name=g wwn=g"),
         [&] {
             FakeConfigfs::Write(tree.Root() / "dbroot", dir.path);
             FakeConfigfs::Write(dir.path / "pr/aptpl_g", "PR_REG_START: 0");
         },
         "reservations"},
        {"/backstores/fileio delete name=g", nothing, "no such storage object"},
        {"/backstores/fileio delete name=f", nothing,
         "the kernel refused"},  // a file in it stands for the LUN's hold
    };
    for (const auto& row : rows) {
        const fs::path kept = dir.path.string() + ".kept";
        fs::copy(dir.path, kept, fs::copy_options::recursive | fs::copy_options::copy_symlinks);
        row.bend();
        const auto before = Paths();
        EXPECT_THAT([&] { Run(row.line); }, testing::ThrowsMessage<SlowRoad>(HasSubstr(row.why)))
            << row.line;
        EXPECT_EQ(Paths(), before) << row.line;
        fs::remove_all(dir.path);
        fs::rename(kept, dir.path);
    }
}

// A plain directory refuses what configfs takes: the files of a new directory aren't there, and
// those of an old one keep it from being removed.
TEST_F(FastRoad, ARefusedStepTakesBackWhatWasMade) {
    const auto before = Paths();
    for (const char* line :
         {"/iscsi/@T/tpg1/acls/@B create tpg_lun_or_backstore=3 mapped_lun=3", "/iscsi create @Tt"})
        EXPECT_THROW(Run(line), SlowRoad) << line;
    EXPECT_THROW(Run(CreateLine(dir.path / "other", "name=g wwn=g")), SlowRoad);
    EXPECT_EQ(Paths(), before);

    // An answer that the kernel had from somebody else isn't asked for again.
    const fs::path made = dir.path / "exists";
    const auto ask = [&] {
        ConfigfsChange change;
        change.MakeDirectory(made);
        change.WriteAsking(made / "enable", "1");
    };
    EXPECT_THAT(ask, testing::ThrowsMessage<StoppedHalfWay>(
                         AllOf(HasSubstr("nothing of it is left"), Not(HasSubstr("exists")))));
    EXPECT_EQ(Paths(), before);
}

TEST_F(FastRoad, APartThatIsDoneIsReportedInALineThatIsNoSuccess) {
    tree.Map(kTarget, kHostB, 3);
    for (const std::string& host : {kHostA, kHostB}) {
        try {
            Run("/iscsi/@T/tpg1/acls/" + host + " delete mapped_lun=3");
            ADD_FAILURE() << "the directory can't be removed";
        } catch (const StoppedHalfWay& why) {
            EXPECT_THAT(why.what(), HasSubstr("part of the command is done"));
            EXPECT_THAT(why.what(), Not(HasSubstr("exists")));
        }
    }
}
