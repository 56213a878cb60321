// User LUNs through configfs, in a directory where the test plays the kernel's part.

#include "tests/support/PlatformFixture.h"

struct PlatformConfigFSTest : MoScsiSrvLIOTest {
    MoScsiSrvLun lun = Lun(BSTOR_USER);
    const std::string root = dir + "/";
    const std::string hba = root + "core/user_3745270535";  // of iqn.Ab and /Path
    const std::string store = hba + "/" + Name(lun) + "/";
    const std::string guid = Guid("iqn.Ab/Path");
    const std::string lunDir = LunDir(3);
    const std::string link = lunDir + guid;
    const Strings create = {
        "$ mkdir -p " + store,
        "$ echo -n dev_size=8589934592 > " + store + "control",
        "$ echo Ser-" + guid + " > " + store + "wwn/vpd_unit_serial",
        "$ echo -n dev_config=MoScsiSrvTcmu/" + guid + " > " + store + "control",
        "$ echo -n 1 > " + store + "enable",
        "$ mkdir -p " + lunDir,
        "$ ln -s " + store + " " + link,
    };
    const Strings remove = {"$ rm -f " + link, "$ rmdir " + lunDir, "$ rmdir " + store,
                            "$ rmdir " + hba};

    PlatformConfigFSTest() {
        Version() = kOld;
        // The kernel makes a storage object's attributes, and takes them away with it.
        g_os.beforeSystem = [this](const std::string& command) {
            if (command.starts_with("echo -n dev_size"))
                std::filesystem::create_directory(store + "wwn");
            if (command == "rmdir " + store)
                for (const char* attribute : {"control", "enable", "wwn"})
                    std::filesystem::remove_all(store + attribute);
        };
    }
    static Strings First(int count, const Strings& all) {
        return {all.begin(), all.begin() + count};
    }
    /// What a delete logs whose step, counted from 0, fails.
    Strings FailedDelete(int step) const {
        return {"[-1] cmd: " + remove[step].substr(2) + " failed",
                "[-1] DeleteLun_BStorUser_ConfigF error iqn.Ab 3\n"};
    }
    std::string LunDir(int number) const {
        return root + "iscsi/iqn.Ab/tpgt_1/lun/lun_" + std::to_string(number) + "/";
    }
};

TEST_F(PlatformConfigFSTest, CreateRunsItsStepsOnceAndDeleteTakesTheTreeAway) {
    const auto confirmed = [this](const std::string& serial) {
        return Strings{
            "-cfg", "+map", "-map",
            "[0] Target iqn.Ab Lun 3 SerialNum " + serial + guid + " Path /Path BStorType 3"};
    };
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(std::filesystem::read_symlink(link), store);
    lun.serialNum = "again";  // nothing runs, the registry's record is the new one
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(Registry().at(CfgString(lun)).first.serialNum, "again-" + guid);
    ASSERT_FALSE(Platform().DeleteLun(&lun).IsError());
    EXPECT_EQ(journal.Events(), Strings({"+cfg", "[1] creating tcmu backstore " + store}) + create +
                                    confirmed("Ser-") +
                                    Strings({"+cfg", "[1] lun iqn.Ab[3] already exists " + link}) +
                                    confirmed("again-") + Strings({"+map", "-map", "+cfg"}) +
                                    remove + confirmed("again-"));
    EXPECT_FALSE(std::filesystem::exists(hba) || std::filesystem::exists(lunDir));
    EXPECT_EQ(Registry().size(), 0U);
}

TEST_F(PlatformConfigFSTest, FailedStepOfACreateIsUndoneAsFarAsTheUndoGets) {
    for (int number = 0; number < 3; ++number)  // so that 3 is the one that the create chooses
        std::filesystem::create_directories(LunDir(number));
    for (int step = 1; step <= 7; ++step) {
        lun = Lun(BSTOR_USER, 0xFFFFFFFF);
        journal.Reset(-1);
        g_os.fail[OsSeams::kSystem] = {step, step % 2 == 0 ? SIGKILL : 1 << 8};
        const CRyError error = Platform().CreateLun(&lun);
        ExpectError(error, 774, "cmd: " + create[step - 1].substr(2) + " failed");
        // The undo stops where something was never made: the LUN's directory comes sixth.
        const bool whole = step == 7;
        EXPECT_EQ(
            journal.Events(),
            Strings({"+cfg"}) + First(step, create) +
                Strings({"[-1] " + error.Message(),
                         "[-1] CreateLun_BStorUser_ConfigFS error iqn.Ab 3\n", "-cfg", "+cfg"}) +
                First(whole ? 4 : 2, remove) + (whole ? Strings() : FailedDelete(1)) +
                Strings({"-cfg"}));
        EXPECT_EQ(std::filesystem::exists(hba), step > 1 && !whole);
        EXPECT_FALSE(std::filesystem::exists(lunDir));
        EXPECT_EQ(Registry().size(), 0U);
        std::filesystem::remove_all(hba);
    }
}

TEST_F(PlatformConfigFSTest, FailedStepOfADeleteIsItsErrorAndTheLunStaysKnown) {
    for (int step = 1; step <= 4; ++step) {
        ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
        journal.Reset(-1);
        g_os.fail[OsSeams::kSystem] = {step, 1 << 8};
        EXPECT_EQ("[-1] " + Platform().DeleteLun(&lun).Message(), FailedDelete(step - 1)[0]);
        EXPECT_EQ(journal.Events(), Strings({"+map", "-map", "+cfg"}) + First(step, remove) +
                                        FailedDelete(step - 1) + Strings({"-cfg"}));
        std::filesystem::remove_all(hba);
        std::filesystem::remove_all(lunDir);
    }
}

TEST_F(PlatformConfigFSTest, BackstoreInUseAndPlacesThatCannotBeLookedAtAreErrors) {
    const std::string code = std::to_string(EACCES);
    // A path, the error of looking at it (0: it is there, of another LUN or half made), and what
    // that leads to.
    const std::tuple<std::string, int, int, std::string> rows[] = {
        {store, 0, 16, "tcmu backstore is in use " + store},
        {link, EACCES, EACCES, "stat " + link + " error " + code},
        {store, EACCES, EACCES, "stat " + store + " " + code + " error"}};
    for (const auto& [path, error, number, message] : rows) {
        g_os.onStat = [path = path, error = error](const std::string& asked, mode_t&) {
            return asked == path ? error : -1;
        };
        journal.Reset(5);
        ExpectError(Platform().CreateLun(&lun), number, message);
        EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "[-1] " + message, "-cfg"));
    }
}

TEST_F(PlatformConfigFSTest, AutomaticNumberIsTheLowestThatIsSurelyFreeUpTo65534) {
    int free = 0;
    g_os.onStat = [&](const std::string& path, mode_t&) {
        return path == LunDir(free) ? ENOENT : path == LunDir(2) ? EACCES : 0;
    };
    for (const int number : {3, 65534, 65535}) {
        free = number;
        lun = Lun(BSTOR_USER, 0xFFFFFFFF);
        journal.Reset(5);
        if (number == 65535)
            break;
        ASSERT_FALSE(Platform().CreateLun(&lun).IsError());  // its link "exists": that is all
        EXPECT_EQ(lun.lunNum, number);
        EXPECT_EQ(journal.Events()[1], "[1] NextAvailableLunNum " + std::to_string(number) + "\n");
    }
    ExpectError(Platform().CreateLun(&lun), 22, "No lun number available");
    EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "-cfg", "[-1] No lun number available"));
    EXPECT_EQ(lun.lunNum, 0xFFFFFFFFU);
    EXPECT_EQ(lun.serialNum, "Ser");
}
