// What the configuration file is refused for, and what a good one comes to.

#include <gmock/gmock.h>
#include <sys/sysmacros.h>

#include <fstream>

#include "host/Identity.h"
#include "host/Plan.h"
#include "tests/support/TempDirectory.h"

using namespace moscsi::host;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace {

constexpr char kTarget[] = "[[target]]\nname = \"iqn.2026-01.com.example:t\"\n";

/// A machine with a few devices that this one hasn't got.
class DeviceStorage : public Storage {
  public:
    using Storage::Storage;

    PathFacts LookAt(const std::string& path) const override {
        if (!path.starts_with("/dev/"))
            return Storage::LookAt(path);
        PathFacts facts;
        if (path == "/dev/missing")
            return facts;
        facts.kind = PathFacts::Kind::BlockDevice;
        facts.device = makedev(7, static_cast<unsigned>(path.back() - '0'));
        facts.identity = "device 7:" + std::string(1, path.back());
        return facts;
    }
};

struct HostConfigTest : testing::Test {
    TempDirectory directory;
    const fs::path& dir = directory.path;
    StorageRoots roots{dir / "sys", dir / "mountinfo", dir / "swaps"};

    HostConfigTest() {
        Make("good.img", 1024);
        for (const std::string device : {"sys/7:0", "sys/7:1", "sys/7:2", "sys/7:3", "sys/7:4"}) {
            Write(device + "/size", device == "sys/7:4" ? "0" : "8");
            Write(device + "/ro", device == "sys/7:1" ? "1" : "0");
        }
        Write("sys/7:2/loop2p1/partition", "1");
        Write("sys/7:2/loop2p1/dev", "259:5");
        Write("mountinfo", "36 1 259:5 / /srv/data rw - ext4 /dev/none rw");
        Write("sys/7:3/holders/dm-0/dev", "");
    }
    void Write(const std::string& name, const std::string& text) {
        fs::create_directories((dir / name).parent_path());
        std::ofstream(dir / name) << text << '\n';
    }
    void Make(const std::string& name, uintmax_t length) {
        std::ofstream(dir / name).close();
        fs::resize_file(dir / name, length);
    }

    /// "@" stands for the test's directory.
    std::string Expand(std::string text) const {
        for (size_t at = 0; (at = text.find('@', at)) != std::string::npos;)
            text.replace(at, 1, dir.string());
        return text;
    }
    Plan PlanOf(const std::string& text, Problems& problems) const {
        const Config config = ParseConfig(Expand(text), "f.toml", problems);
        return problems.Empty() ? MakePlan(config, 3260, DeviceStorage(roots), problems) : Plan();
    }
};

std::string Lun(const std::string& keys, const std::string& name = "a") {
    return "[[target.lun]]\nname = \"" + name + "\"\n" + keys + "\n";
}
std::string FileLun(const std::string& keys, const std::string& name = "a") {
    return Lun("type = \"file\"\n" + keys, name);
}
std::string BlockLun(const std::string& keys, const std::string& name = "a") {
    return Lun("type = \"block\"\n" + keys, name);
}
std::string MemoryLun(const std::string& keys, const std::string& name = "a") {
    return Lun("type = \"user\"\nbacking = \"memory\"\n" + keys, name);
}
std::string Initiator(const std::string& keys) {
    return "[[target.initiator]]\n" + keys + "\n";
}

TEST_F(HostConfigTest, GoodFileBecomesThePlan) {
    Problems problems;
    const Plan plan = PlanOf(
        kTarget + FileLun("path='@/good.img'\nnumber=255") +
            FileLun("path='@/new.img'\nsize='3 KiB'\nnumber='auto'", "b") +
            BlockLun("path='/dev/loop0'\nserial_prefix=''", "c") + MemoryLun("size=512", "d") +
            Initiator("name='iqn.2026-01.com.example:h'\nluns=[\"d\", \"a\"]") +
            Initiator("name='iqn.2026-01.com.example:i'\nluns='all'"),
        problems);
    ASSERT_THAT(problems.Lines(), ElementsAre());
    const auto& luns = plan.targets.at(0).luns;
    ASSERT_EQ(luns.size(), 4U);
    EXPECT_EQ(luns[0].number, 255U);
    EXPECT_EQ(luns[0].size, 1024U) << "the file's own length";
    EXPECT_FALSE(luns[0].makesFile);
    EXPECT_EQ(luns[1].number, std::nullopt);
    EXPECT_EQ(luns[1].size, 3072U);
    EXPECT_TRUE(luns[1].makesFile);
    EXPECT_EQ(luns[2].size, 4096U) << "the device's, from sysfs";
    EXPECT_EQ(luns[2].device, makedev(7, 0));
    EXPECT_THAT(luns[2].serial, StartsWith("-"));
    EXPECT_EQ(luns[3].config.path, "/memory/d");
    // MD5 of "MoScsiSrv-iqn.2026-01.com.example:t-/memory/d" and of target and path.
    EXPECT_EQ(luns[3].object, "2f166adba7d5646");
    EXPECT_EQ(luns[3].serial, "lun-fff97991d5a2642f3c2fa74ea5fed60b");
    EXPECT_EQ(luns[3].cfgString, "fff97991d5a2642f3c2fa74ea5fed60b");
    EXPECT_THAT(plan.targets[0].initiators.at(0).luns, ElementsAre(0, 3));
    EXPECT_THAT(plan.targets[0].initiators.at(1).luns, ElementsAre(0, 1, 2, 3));
    EXPECT_EQ(plan.ObjectCount(), 1 + 4 + 2 + 6U);
    EXPECT_TRUE(plan.HasUserLuns());
}

TEST_F(HostConfigTest, EachFaultIsOneLineWithItsPlace) {
    Make("empty.img", 0);
    Make("odd.img", 1000);
    Make("short.img", 512);
    fs::create_directories(dir / "dir.img");
    fs::create_hard_link(dir / "good.img", dir / "link.img");
    Make("Upper.img", 512);
    const std::string good = kTarget + FileLun("path='@/good.img'");
    const std::string host = "name='iqn.2026-01.com.example:h'\n";
    const std::string hex25(25, 'a');

    const struct {
        std::string text;
        const char* line;    ///< where it must point
        const char* phrase;  ///< what it must say
    } faults[] = {
        {"", "", "names no target"},
        {"[[target]\n", ":1:", "is not TOML"},
        {"[[target]]\nname=3\n", ":2:", "name must be a text"},
        {std::string(100, '[') + "\n", "", "nest"},
        {"[service]\nlog_level = 7\n" + good, ":2:", "log_level is from -1"},
        {"[service]\ncolour = 1\n" + good, ":2:", "knows no key \"colour\""},
        {kTarget + Lun("type='tape'"), ":5:", "none of \"file\", \"block\", \"user\""},
        {kTarget + Lun("type='user'\nsize=512"), ":3:", "has no backing"},
        {kTarget + Lun("type='user'\nbacking='disk'\nsize=512"), ":6:", "neither"},
        {kTarget + FileLun("path='@/good.img'\nsiez = 4"), ":7:", "knows no key \"siez\""},
        {kTarget + FileLun(""), ":3:", "has no path"},
        {kTarget + FileLun("path='@/new.img'\nsize='4 MB'"), ":7:", "such as \"64MiB\""},
        {kTarget + FileLun("path='@/new.img'"), ":6:", "no size is given"},
        {kTarget + FileLun("path='@/new.img'\nsize=1000"), ":7:", "multiple of 512"},
        {kTarget + FileLun("path='@/new.img'\nsize=0"), ":7:", "multiple of 512"},
        {kTarget + FileLun("path='@/no/new.img'\nsize=512"), ":6:", "directory of"},
        {kTarget + FileLun("path='@/empty.img'"), ":6:", "is 0 bytes long"},
        {kTarget + FileLun("path='@/odd.img'"), ":6:", "is 1000 bytes long"},
        {kTarget + FileLun("path='@/short.img'\nsize=1024"), ":7:", "is 512 bytes long"},
        {kTarget + FileLun("path='@/dir.img'\nsize=512"), ":6:", "no regular file"},
        {kTarget + FileLun("path='/dev/loop0'"), ":6:", "no regular file"},
        {kTarget + FileLun("path='@/good.img/x'\nsize=512"), ":6:", "can't be looked at"},
        {kTarget + FileLun("path='@/Upper.img'"), ":6:", "upper-case"},
        {kTarget + FileLun("path='@/a b.img'\nsize=512"), ":6:", "character ' '"},
        {kTarget + FileLun("path='@/\xc3\xa4.img'\nsize=512"), ":6:", "character 0xc3"},
        {kTarget + FileLun("path='good.img'\nsize=512"), ":6:", "no absolute path"},
        {good + FileLun("path='@/link.img'", "b"), ":10:", "used by two LUNs"},
        {kTarget + FileLun("path='@/new.img'\nsize=512") +
             FileLun("path='@/./new.img'\nsize=512", "b"),
         ":11:", "used by two LUNs"},
        {kTarget + BlockLun("path='/dev/missing'"), ":6:", "isn't there"},
        {kTarget + BlockLun("path='@/good.img'"), ":6:", "no block device"},
        {kTarget + BlockLun("path='/dev/loop0'\nsize=512"), ":7:", "has 4096 bytes"},
        {kTarget + BlockLun("path='/dev/loop1'"), ":6:", "is read-only"},
        {kTarget + BlockLun("path='/dev/loop2'"), ":6:", "is mounted on /srv/data"},
        {kTarget + BlockLun("path='/dev/loop3'"), ":6:", "is part of dm-0"},
        {kTarget + BlockLun("path='/dev/loop4'"), ":6:", "has no size"},
        {kTarget + MemoryLun(""), ":3:", "needs size"},
        {kTarget + MemoryLun("size='3TiB'"), ":7:", "more than 2 TiB"},
        {kTarget + MemoryLun("size=512\npath='/m'") + MemoryLun("size=512\npath='/m'", "b"),
         ":14:", "would be one object"},
        {good + MemoryLun("size=512\nnumber=256", "b"), ":12:", "can't be mapped"},
        {good + MemoryLun("size=512\nnumber='first'", "b"), ":12:", "whole number"},
        {kTarget + MemoryLun("size=512\nnumber=4") + MemoryLun("size=512\nnumber=4", "b"),
         ":14:", "LUN number 4 stands in line 8"},
        {good + MemoryLun("size=512", "a"), ":8:", "the LUN name \"a\" stands in line 4"},
        {good + MemoryLun("size=512", "all"), ":8:", "can't name a LUN"},
        {kTarget + FileLun("path='@/good.img'\nserial_prefix='" + std::string(65, 'x') + "'"),
         ":7:", "is 65 characters long"},
        {kTarget + FileLun("path='@/good.img'\nserial_prefix='Disk'"), ":7:", "upper-case"},
        {kTarget + FileLun("path='@/good.img'\nserial_prefix='" + hex25 + "'") +
             MemoryLun("size=512\nserial_prefix='" + hex25 + "'", "b"),
         ":13:", "first 25 hexadecimal digits"},
        {"[[target]]\nname='iqn.2026-01.com.Example:t'\n", ":2:", "upper-case"},
        {"[[target]]\nname='iqn.2026-01.com.example:t_1'\n", ":2:", "character '_'"},
        {"[[target]]\nname='iqn.2026-13.com.example:t'\n", ":2:", "no iSCSI qualified name"},
        {"[[target]]\nname=\"iqn.2026-01.com.example:" + std::string(200, 't') + "\"\n",
         ":2:", "at most 223"},
        {good + kTarget, ":8:", "merge the two"},
        {good + Initiator(host + "luns=[\"a\"]") + Initiator(host + "luns=[\"a\"]"),
         ":11:", "merge the two"},
        {good + Initiator(host + "luns=[1]"), ":9:", "must hold luns"},
        {good + Initiator(host + "luns=[\"b\"]"), ":9:", "no LUN of that name"},
        {good + Initiator(host + "luns=[\"a\", \"a\"]"), ":9:", "names a LUN twice"},
        {good + Initiator("name='host'\nluns='all'"), ":8:", "no iSCSI qualified name"},
    };
    for (const auto& fault : faults) {
        Problems problems;
        PlanOf(fault.text, problems);
        EXPECT_THAT(problems.Lines(),
                    ElementsAre(AllOf(StartsWith("f.toml" + std::string(fault.line)),
                                      HasSubstr(fault.phrase), Not(HasSubstr("\n")))))
            << fault.text;
    }
}

TEST_F(HostConfigTest, EveryFaultIsToldAtOnce) {
    Problems problems;
    PlanOf(kTarget + FileLun("path='@/new.img'\nsize=1\nnumber=300") + MemoryLun("size=1", "b"),
           problems);
    EXPECT_EQ(problems.Lines().size(), 3U);
    Problems unreadable;
    ReadConfig(dir, unreadable);
    EXPECT_THAT(unreadable.Lines(), ElementsAre(HasSubstr("can't be read")));
}

}  // namespace
