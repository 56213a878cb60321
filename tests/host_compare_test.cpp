// What configfs is compared for, against a tree that can be bent into every wrong state.

#include "host/kernel/Compare.h"
#include "host/kernel/PlanObjects.h"
#include "host/plan/Identity.h"
#include "tests/support/PlanFixture.h"

const std::string kName = "iqn.2026-01.com.example:t";
const std::string kHostA = "iqn.2026-01.com.example:a";
const std::string kHostB = "iqn.2026-01.com.example:b";
const std::string kOther = "iqn.2026-01.com.example:other";

const Manner kOlder = Manner::Of("2.1.fb41");
enum When { kBefore, kAfter, kBoth };

/// One target, a LUN of each kind, host A with all of them and host B with one; configfs shows
/// just that until a test bends it.
struct HostCompareTest : PlanTest {
    FakeConfigfs tree{dir / "target"};
    Plan plan;
    Manner manner = Manner::Of("2.1.fb53");

    HostCompareTest() {
        Make("file.img", 4096);
        plan = PlanOf(kTarget + LunText("file", "path='@/file.img'\nnumber=0", "file") +
                      LunText("block", "path='/dev/loop0'", "block") +
                      Memory("size=4096\nnumber=7", "user") + Initiator(kHostA, "'all'") +
                      Initiator(kHostB, "['file']"));
        EXPECT_THAT(problems.Lines(), IsEmpty());
        fs::create_directories(tree.Root() / "core/alua/lu_gps");
        fs::create_directories(tree.Root() / "iscsi/discovery_auth");
    }

    const LunPlan& Lun(size_t index) const { return plan.targets[0].luns[index]; }
    fs::path Object(size_t index) const { return tree.ObjectDirectory(Lun(index).object); }
    fs::path Group() const { return tree.Group(kName); }

    void Fill() {
        tree.AddTarget(kName);
        const char* const kinds[] = {"fileio", "iblock", "user"};
        const unsigned numbers[] = {0, 1, 7};
        for (size_t i = 0; i < 3; ++i) {
            const LunPlan& lun = Lun(i);
            tree.AddObject({kinds[i], lun.object,
                            i == 2 ? "moscsisrvtcmu/" + lun.cfgString : lun.config.path, lun.size,
                            lun.serial});
            tree.AddLun(kName, numbers[i], lun.object);
            tree.Map(kName, kHostA, numbers[i]);
        }
        tree.Map(kName, kHostB, 0);
    }
    ConfigfsView View() const { return ReadConfigfs(tree.Root(), dir / "sys"); }
    std::vector<std::string> Before() const { return ConflictsBefore(plan, View(), manner); }
    std::vector<std::string> After() const { return FaultsAfter(plan, View(), manner); }
};

TEST_F(HostCompareTest, WhatTheFileSaysAgreesWhateverStandsBesideIt) {
    tree.AddTarget(kOther);
    const ConfigfsView empty = View();
    EXPECT_THAT(Before(), IsEmpty()) << "a portal on all addresses can be shared";
    Fill();
    EXPECT_EQ(Leftovers(plan, empty, View()).size(), 1 + 3 + 3U);
    EXPECT_THAT(Leftovers(plan, View(), View()), IsEmpty()) << "they were there before";
    tree.AddObject({"fileio", "other", "/srv/other.img", 512, "0123"});
    tree.AddLun(kOther, 0, "other");
    EXPECT_THAT(Before(), IsEmpty());
    EXPECT_THAT(After(), IsEmpty());
    FakeConfigfs::Write(Object(2) / "attrib/cmd_time_out", "7\n");
    EXPECT_EQ(ObjectOf(Lun(2), View())->commandTimeOut, 7U);
    tree.AddObject({"user", "gone", "MoScsiSrvTcmu/0123", 512, ""});
    tree.AddObject({"user", "lower", "moscsisrvtcmu/4567", 512, ""});
    tree.AddObject({"user", "rbd", "rbd/pool", 512, ""});
    EXPECT_THAT(Unserved(plan, View()),
                ElementsAre(HasSubstr("user/gone"), HasSubstr("user/lower")));

    LunPlan& file = plan.targets[0].luns[0];  // the kernel has it, and nobody knows its size
    file.missing = true;
    const uint64_t size = std::exchange(file.size, 0);
    EXPECT_THAT(Before(), IsEmpty());
    EXPECT_THAT(After(), IsEmpty());
    for (const fs::path& gone : {tree.Mapping(kName, kHostA, 0), Group() / "acls" / kHostB,
                                 tree.Lun(kName, 0), Object(0).parent_path()})
        fs::remove_all(gone);
    EXPECT_THAT(Before(), IsEmpty());
    EXPECT_THAT(After(), IsEmpty()) << "it stays out, and who would see nothing else with it";
    file.missing = false;
    file.size = size;
    EXPECT_THAT(After(), SizeIs(2));
    fs::remove_all(tree.Root());
    Fill();

    manner = kOlder;  // it chooses serials, and its user LUNs have a link of their own
    FakeConfigfs::Write(Object(0) / "wwn/vpd_unit_serial", "T10 VPD Unit Serial Number: its own");
    fs::rename(tree.Lun(kName, 7) / "a1b2c3", tree.Lun(kName, 7) / Lun(2).cfgString);
    EXPECT_THAT(Before(), IsEmpty());
    EXPECT_THAT(After(), IsEmpty());
}

TEST_F(HostCompareTest, EachDisagreementIsOneLineWithARemedy) {
    const auto write = FakeConfigfs::Write;
    const auto swap = [&](size_t lun, const std::string& from, const std::string& to) {
        std::ifstream stream(Object(lun) / "info");
        std::string text((std::istreambuf_iterator<char>(stream)), {});
        write(Object(lun) / "info", text.replace(text.find(from), from.size(), to));
    };
    const auto gone = [](auto... all) { (fs::remove_all(all), ...); };
    const auto object = [&](const char* kind, const std::string& name, const char* path,
                            const std::string& serial = "") {
        tree.AddObject({kind, name, path, 512, serial});
    };
    const auto seen = [&](unsigned number) { return tree.Mapping(kName, kHostA, number); };
    const auto lun = [&](unsigned number) { return tree.Lun(kName, number); };
    auto& luns = plan.targets[0].luns;

    const std::string size = "has 8192 bytes and should have 4096";
    const std::string file = "has not the path " + Expand("@/file.img") + ": remove it with: ";
    const std::string serial = "wwn/vpd_unit_serial";
    const std::string written = "T10 VPD Unit Serial Number: ";
    const struct {
        std::function<void()> bend;
        std::string phrase;
        When when = kBoth;
    } cases[] = {
        {[&] { swap(0, "Size: 4096", "Size: 8192"); }, size},
        {[&] { write(dir / "sys/7:0/size", "16"); }, size},
        {[&] { write(Object(0) / "udev_path", "/srv/b.img"); },
         file + "targetcli /backstores/fileio delete"},
        {[&] { luns[1].device = makedev(7, 1); }, "over another device"},
        {[&] { swap(2, "tcmu/", "tcmu/x"); }, "has the configuration \"moscsisrvtcmu/x"},
        {[&] { swap(1, "readonly: 0", "readonly: 1"); }, "is read-only"},
        {[&] { write(Object(1) / serial, written + "else"); }, "has the serial \"else\""},
        {[&] { write(Object(2) / serial, written); }, "has the serial \"\""},
        {[&] { write(Object(2) / "enable", "0"); }, "is not enabled: remove it with: rmdir"},
        {[&] { luns[0].number = 3; }, "LUN file is number 0 in target"},
        {[&] { object("fileio", "other", "/srv/x"), tree.AddLun(kName, 5, "other"); },
         "holds LUN 5, fileio/other (/srv/x), which the file doesn't name"},
        {[&] { fs::create_directories(lun(9)); }, "half-made LUN 9: remove it with: rmdir"},
        {[&] { tree.AddLun(kOther, 4, Lun(0).object); }, "is exported by target " + kOther},
        {[&] { object("iblock", "other", "/dev/x"); },
         "/dev/loop0 is used by backstore iblock/other (/dev/x): remove it with: "
         "targetcli /backstores/block delete other"},
        {[&] { object("iblock", Lun(2).object, "/dev/x"); }, "another backstore, iblock/"},
        {[&] { object("fileio", "other", "/srv/x", NaaDigitsOf(Lun(0).serial) + "ffff"); },
         "first 25 hexadecimal digits"},
        {[&] { tree.Map(kName, kOther, 0); }, "admits the initiator " + kOther},
        {[&] { tree.Map(kName, kHostB, 7); }, "/acls/" + kHostB + " delete 7"},
        {[&] { fs::rename(seen(1) / "d4e5f6", seen(7) / "d4e5f6"); },
         "sees as LUN 7 what is LUN 1"},
        {[&] { gone(seen(7) / "d4e5f6"); }, "is LUN nowhere"},
        {[&] { write(seen(0) / "write_protect", "1"); }, "may only read LUN 0"},
        {[&] { write(Group() / "enable", "0"); }, "disabled"},
        {[&] { write(Group() / "attrib/generate_node_acls", "1"); }, "admits every initiator"},
        {[&] { gone(Group() / "np/0.0.0.0:3260"); }, "has no portal on the service port 3260"},
        {[&] { fs::create_directories(Group() / "np/[::1]:3261"); },
         "portal [::1]:3261, which isn't on the service port 3260"},
        {[&] { fs::create_directories(Group() / "../tpgt_2"); }, "holds portal group 2"},
        {[&] { fs::rename(Group(), Group() / "../param"); }, "has no portal group 1"},
        {[&] { tree.RemoveTarget(kName); }, "is not in configfs", kAfter},
        {[&] { gone(seen(7), lun(7), Object(2).parent_path()); }, "has no backstore", kAfter},
        {[&] { gone(seen(1), lun(1)); }, "but no LUN", kAfter},
        {[&] { gone(seen(1)); }, "doesn't see LUN block, number 1", kAfter},
        {[&] { gone(Group() / "acls" / kHostB); }, "doesn't admit", kAfter},
        {[&] { tree.RemoveTarget(kName), tree.AddTarget(kOther, "127.0.0.1:3260"); },
         "portal 127.0.0.1:3260 of target", kBefore},
        {[&] { tree.RemoveTarget(kName), plan.port = 3261; }, "new target listens", kBefore},
        {[&] { manner = kOlder; }, "was made through targetcli", kBefore},
        {[&] { manner = kOlder, gone(seen(7), lun(7)); }, "LUN user is half-made", kBefore},
    };
    const Plan good = plan;
    for (const auto& [bend, phrase, when] : cases) {
        SCOPED_TRACE(phrase);
        fs::remove_all(tree.Root());
        FakeConfigfs::Write(dir / "sys/7:0/size", "8");
        plan = good;
        manner = Manner::Of("2.1.fb43");
        Fill();
        bend();
        const auto told = Contains(HasSubstr(phrase));
        EXPECT_THAT(Before(), Conditional(when == kAfter, IsEmpty(), told));
        EXPECT_THAT(After(), Conditional(when == kBefore, Not(told), told));
    }
}
