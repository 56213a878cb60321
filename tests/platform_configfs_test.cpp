// User LUNs through configfs, in a directory where the test plays the kernel's part.

#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/PlatformFixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

struct PlatformConfigFSTest : MoScsiSrvLIOTest {
    MoScsiSrvLun lun = Lun(BSTOR_USER);
    const std::string root = dir.path + "/";
    const std::string hba = root + "core/user_3745270535";  // of iqn.Ab and /Path
    const std::string store = hba + "/" + Name(lun) + "/";
    const std::string guid = Guid("iqn.Ab/Path");
    const std::string lunDir = LunDir(3);
    const std::string link = lunDir + guid;
    const Strings create = {
        "mkdir -p " + store,
        "echo -n dev_size=8589934592 > " + store + "control",
        "echo Ser-" + guid + " > " + store + "wwn/vpd_unit_serial",
        "echo -n dev_config=MoScsiSrvTcmu/" + guid + " > " + store + "control",
        "echo -n 1 > " + store + "enable",
        "mkdir -p " + lunDir,
        "ln -s " + store + " " + link,
    };
    const Strings remove = {"rm -f " + link, "rmdir " + lunDir, "rmdir " + store, "rmdir " + hba};
    const std::string undoError = "DeleteLun_BStorUser_ConfigF error iqn.Ab 3\n";

    PlatformConfigFSTest() {
        Version() = kOld;
        // The kernel makes a storage object's attributes, and takes them away with it.
        os_seams::beforeSystem = [this](const std::string& command) {
            if (command.starts_with("echo -n dev_size"))
                std::filesystem::create_directory(store + "wwn");
            if (command == "rmdir " + store)
                for (const char* attribute : {"control", "enable", "wwn"})
                    std::filesystem::remove_all(store + attribute);
        };
    }
    std::string LunDir(int number) const {
        return root + "iscsi/iqn.Ab/tpgt_1/lun/lun_" + std::to_string(number) + "/";
    }
    static std::string Content(const std::string& file) {
        std::ifstream stream(file);
        return {std::istreambuf_iterator<char>(stream), {}};
    }
    static Strings Ran(Strings commands, size_t count) {
        commands.resize(std::min(count, commands.size()));
        for (std::string& command : commands)
            command.insert(0, "$ ");
        return commands;
    }
    static void Append(Strings& to, const Strings& more) {
        to.insert(to.end(), more.begin(), more.end());
    }
};

TEST_F(PlatformConfigFSTest, CreateWritesTheTreeAndDeleteTakesItAway) {
    const std::string confirm =
        "[0] Target iqn.Ab Lun 3 SerialNum Ser-" + guid + " Path /Path BStorType 3";
    journal.Reset(5);
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    Strings expected{"+cfg", "[1] creating tcmu backstore " + store};
    Append(expected, Ran(create, 7));
    Append(expected, {"-cfg", "+map", "-map", confirm});
    EXPECT_THAT(journal.Events(), ElementsAreArray(expected));
    EXPECT_EQ(Content(store + "control"), "dev_config=MoScsiSrvTcmu/" + guid);
    EXPECT_EQ(Content(store + "wwn/vpd_unit_serial"), "Ser-" + guid + "\n");
    EXPECT_EQ(Content(store + "enable"), "1");
    EXPECT_EQ(std::filesystem::read_symlink(link), store);
    EXPECT_NE(Entry(CfgString(lun)), nullptr);

    // Once more: nothing runs, the registry's record is the new one.
    lun.serialNum = "again";
    journal.Reset(1);
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_THAT(journal.Texts(1), ElementsAre("lun iqn.Ab[3] already exists " + link));
    EXPECT_THAT(Commands(), IsEmpty());
    EXPECT_EQ(Entry(CfgString(lun))->first.serialNum, "again-" + guid);

    journal.Reset(-1);
    ASSERT_FALSE(Platform().DeleteLun(&lun).IsError());
    expected = {"+map", "-map", "+cfg"};
    Append(expected, Ran(remove, 4));
    Append(expected, {"-cfg", "+map", "-map"});
    EXPECT_THAT(journal.Events(), ElementsAreArray(expected));
    EXPECT_FALSE(std::filesystem::exists(hba));
    EXPECT_FALSE(std::filesystem::exists(lunDir));
    EXPECT_EQ(Entries(), 0U);
}

TEST_F(PlatformConfigFSTest, FailedStepIsUndoneAsFarAsTheUndoGets) {
    for (size_t step = 1; step <= create.size(); ++step) {
        SCOPED_TRACE(create[step - 1]);
        lun.serialNum = "Ser";
        journal.Reset(-1);
        os_seams::FailAt(os_seams::kSystem, static_cast<int>(step), 0);
        const CRyError error = Platform().CreateLun(&lun);
        EXPECT_EQ(error.Message(), "cmd: " + create[step - 1] + " failed");
        Strings expected{"+cfg"};
        Append(expected, Ran(create, step));
        Append(expected, {"[-1] " + error.Message(),
                          "[-1] CreateLun_BStorUser_ConfigFS error iqn.Ab 3\n", "-cfg", "+cfg"});
        // The undo stops where something was never made: the LUN's directory comes sixth.
        const bool whole = step == create.size();
        Append(expected, Ran(remove, whole ? 4 : 2));
        if (!whole)
            Append(expected, {"[-1] cmd: " + remove[1] + " failed", "[-1] " + undoError});
        expected.emplace_back("-cfg");
        EXPECT_THAT(journal.Events(), ElementsAreArray(expected));
        EXPECT_EQ(std::filesystem::exists(hba), step > 1 && !whole);
        EXPECT_FALSE(std::filesystem::exists(lunDir));
        EXPECT_EQ(Entries(), 0U);
        std::filesystem::remove_all(hba);
    }
}

TEST_F(PlatformConfigFSTest, BackstoreInUseAndPlacesThatCannotBeLookedAtAreErrors) {
    const std::string code = std::to_string(EACCES);
    const struct {
        std::string path;
        int error;  // of looking at it; 0: it is there, of another LUN or half made
        int number;
        std::string message;
    } rows[] = {{store, 0, 16, "tcmu backstore is in use " + store},
                {link, EACCES, EACCES, "stat " + link + " error " + code},
                {store, EACCES, EACCES, "stat " + store + " " + code + " error"}};
    for (const auto& row : rows) {
        os_seams::onStat = [&row](const std::string& asked, mode_t&) {
            return asked == row.path ? row.error : -1;
        };
        journal.Reset(5);
        const CRyError error = Platform().CreateLun(&lun);
        EXPECT_EQ(error.Number(), row.number);
        EXPECT_EQ(error.Message(), row.message);
        EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "[-1] " + row.message, "-cfg"));
        EXPECT_EQ(Entries(), 0U);
    }
}

TEST_F(PlatformConfigFSTest, AutomaticNumberIsTheLowestThatIsSurelyFreeUpTo65534) {
    for (const int taken : {0, 1})
        std::filesystem::create_directories(LunDir(taken));
    os_seams::onStat = [this](const std::string& path, mode_t&) {
        return path == LunDir(2) ? EACCES : -1;
    };
    lun.lunNum = 0xFFFFFFFF;
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(lun.lunNum, 3U);
    EXPECT_EQ(journal.Texts(1).at(0), "NextAvailableLunNum 3\n");
    EXPECT_TRUE(std::filesystem::exists(link));

    int first = 65534;
    os_seams::onStat = [&](const std::string& path, mode_t&) {
        return path == LunDir(first) ? ENOENT : 0;
    };
    lun.lunNum = 0xFFFFFFFF;
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());  // the link "exists": that is all
    EXPECT_EQ(lun.lunNum, 65534U);

    first = 65535;
    lun.lunNum = 0xFFFFFFFF;
    lun.serialNum = "Ser";
    journal.Reset(5);
    const CRyError error = Platform().CreateLun(&lun);
    EXPECT_EQ(error.Number(), 22);
    EXPECT_EQ(error.Message(), "No lun number available");
    EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "-cfg", "[-1] No lun number available"));
    EXPECT_EQ(lun.lunNum, 0xFFFFFFFFU);
    EXPECT_EQ(lun.serialNum, "Ser");
}
