// File and block LUNs: what is checked before any command, the backing file, and numbers.

#include <sys/stat.h>

#include "tests/support/PlatformFixture.h"

struct PlatformFileLunsTest : MoScsiSrvLIOTest {
    MoScsiSrvLun FileLun(const std::string& file, uint64_t size) {
        MoScsiSrvLun lun = Lun(BSTOR_FILE);
        lun.path = dir + "/" + file;
        lun.size = size;
        return lun;
    }
    /// Expects that the create fails before it touches LIO or the record.
    void ExpectRefused(MoScsiSrvLun lun, int code, const std::string& message,
                       const Strings& events) {
        SCOPED_TRACE(message);
        journal.Reset(5);
        const CRyError error = Platform().CreateLun(&lun);
        ExpectError(error, code, message);
        EXPECT_EQ(journal.Events(), events);
        EXPECT_EQ(lun.serialNum, "Ser");
        // What an entry logs and where its errors come from is that entry, whatever it shares.
        static const std::string kinds[] = {"", "File", "BlkDev", "User", "BlkDev"};
        const std::string entry =
            "CRyError MoScsiSrvLIO::CreateLun_BStor" + kinds[lun.bstorType] + "(MoScsiSrvLun_t*)";
        EXPECT_EQ(error.Location()->Function(), entry);
        EXPECT_EQ(error.Location()->File(), "MoScsiSrvLIO");
        EXPECT_THAT(journal.Functions(), Each(entry));
    }
};

TEST_F(PlatformFileLunsTest, NumbersAndTypesOutsideTheRangeRunNothing) {
    for (const uint32_t number : {65535U, 0x80000000U, 0xFFFFFFFEU}) {
        const std::string text = "invalid lun number " + std::to_string(static_cast<int>(number));
        for (const char* version : {kNew, kOld}) {  // before the choice of path
            Version() = version;
            for (const uint32_t type : {BSTOR_FILE, BSTOR_USER})
                ExpectRefused(Lun(type, number), 22, text, {"[-1] " + text});
        }
    }
    journal.Reset(5);
    for (const uint32_t type : {0U, 5U, 0xFFFFFFFFU}) {
        MoScsiSrvLun lun = Lun(type);
        const std::string text = "invalid bstore type " + std::to_string(static_cast<int>(type));
        ExpectError(Platform().CreateLun(&lun), 774, text);
        ExpectError(Platform().DeleteLun(&lun), 774, text);
    }
    EXPECT_EQ(journal.Events(), Strings());
}

TEST_F(PlatformFileLunsTest, WhatIsWrongWithThePathIsSaid) {
    MoScsiSrvLun lun = FileLun("new", 0);
    const std::string& path = lun.path;
    ExpectRefused(lun, 22, "bstor file size not set " + path,
                  {"[-1] bstor file " + path + " size not set"});
    EXPECT_FALSE(std::filesystem::exists(path));

    // Looked for in vain, and yet a directory, or a file on a full device, which stays. There the
    // close's errno counts, not the write's.
    lun.size = 4096;
    const std::string creating = "[1] creating bstor file " + path;
    g_os.onStat = [](const std::string&, mode_t&) { return ENOENT; };
    std::filesystem::create_directory(path);
    ExpectRefused(lun, EISDIR, "bstor file create error " + path,
                  {creating, "[-1] creat bstor file " + path + " error " + std::to_string(EISDIR)});
    std::filesystem::remove(path);
    std::filesystem::create_symlink("/dev/full", path);
    g_os.fail[OsSeams::kClose] = {1, EDQUOT};
    ExpectRefused(lun, EDQUOT, "bstor file write error " + path,
                  {creating, "[-1] write bstor file " + path + " error " + std::to_string(EDQUOT)});
    EXPECT_TRUE(std::filesystem::is_symlink(path));

    for (const uint32_t type : {BSTOR_FILE, BSTOR_BLKDEV, BSTOR_BLKDEV2}) {
        lun.bstorType = type;
        // A device is never created.
        const int looked = type == BSTOR_FILE ? EACCES : ENOENT;
        g_os.onStat = [looked](const std::string&, mode_t&) { return looked; };
        ExpectRefused(lun, looked, "bstor " + path + " stat error",
                      {"[-1] bstor " + path + " stat error " + std::to_string(looked)});
        // The code is whatever errno was, even none.
        for (const int left : {0, EXDEV}) {
            g_os.onStat = [left](const std::string&, mode_t& mode) {
                mode = S_IFDIR | 0755;
                errno = left;
                return 0;
            };
            const std::string text = type == BSTOR_FILE ? " not regular file" : " is not blk dev";
            ExpectRefused(lun, left, "bstor " + path + text,
                          {"[-1] bstor " + path + (type == BSTOR_FILE ? " is" : "") + text});
        }
    }
}

TEST_F(PlatformFileLunsTest, FileIsMadeSparseOrUsedAsItIsAndDeleteKeepsIt) {
    MoScsiSrvLun lun = FileLun("Backing", (uint64_t{5} << 30) + 512);
    const mode_t mask = umask(0);
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    umask(mask);
    EXPECT_THAT(journal.Texts(1), ElementsAre("creating bstor file " + lun.path));
    struct stat status = {};
    ASSERT_EQ(stat(lun.path.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks, 100);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_FALSE(Platform().DeleteLun(&lun).IsError());
    EXPECT_EQ(std::filesystem::file_size(lun.path), lun.size);

    lun = FileLun("old", 0);  // its size is the file's own
    std::ofstream(lun.path) << "content";
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    // Even one that appears after it was looked for is not emptied.
    lun.size = 2;
    g_os.onStat = [](const std::string&, mode_t&) { return ENOENT; };
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(ReadSmallFile(lun.path), std::string("c\0ntent", 7));
}

TEST_F(PlatformFileLunsTest, SerialNumberGrowsAndIsGivenToNewerVersionsAsTextCompares) {
    MoScsiSrvLun lun = FileLun("f", 1);
    std::string serial = "Ser";
    for (const std::string version : {kNew, kOld, "10.0", "2.1.fb100", ""}) {
        Version() = version;
        lun.lunNum = version == kNew ? 0 : 65534;  // neither is outside the range
        journal.Reset(-1);
        EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
        serial += "-" + Guid("iqn.Ab" + lun.path);
        EXPECT_EQ(journal.Events()[1].ends_with(" wwn=" + Lower(serial) + Updating("")),
                  version == kNew);
    }
    EXPECT_EQ(lun.serialNum, serial);
}

TEST_F(PlatformFileLunsTest, AutomaticNumberIsReadBackOrAnErrorOrLeavesTheConfigurationLocked) {
    const std::string directories[] = {"", "fileio/", "block/", "user/", "block/"};
    for (const uint32_t type : {BSTOR_FILE, BSTOR_BLKDEV, BSTOR_USER, BSTOR_BLKDEV2}) {
        SCOPED_TRACE(type);
        g_os.onStat = [&](const std::string&, mode_t& mode) {
            mode = type == BSTOR_FILE ? S_IFREG : S_IFBLK;
            return 0;
        };
        MoScsiSrvLun lun = Lun(type);
        const std::string object = directories[type] + Name(lun);
        const std::string command = "targetcli /iscsi/iqn.Ab/tpg1/luns ls | grep -w " + object +
                                    " | awk '{print $2}' | tr -d '\n' | sed 's/lun//g'";
        const auto list = [this](const std::string& listing) {
            Answer("/iscsi/iqn.ab/tpg1/luns ls", "", listing);
        };
        const auto create = [&] {
            lun = Lun(type, 0xFFFFFFFF);
            journal.Reset(5);
            const CRyError error = Platform().CreateLun(&lun);
            EXPECT_THAT(journal.Events(), Contains(StartsWith("$")).Times(3)) << "no undo";
            return error;
        };
        list("o- luns ... [LUNs: 4]\\n  o- lun4 .. [" + object + "f (x)]\\n" + "  o- lun17 .. [" +
             object + " (x)]\\n  o- lun5 .. [other/" + Name(lun) + " (x)]\\n  o- lun6 .. [x" +
             object + " (x)]\\n");
        EXPECT_FALSE(create().IsError());
        EXPECT_EQ(lun.lunNum, 17U);
        const Strings events = journal.Events();
        EXPECT_THAT(events[2], Not(HasSubstr(" lun=")));
        EXPECT_EQ(events[3], "$ " + Lower(command));
        EXPECT_EQ(events[4], "[2] TargetCliReadObject: 17");
        EXPECT_THAT(journal.Texts(0), ElementsAre(HasSubstr("iqn.Ab Lun 17 SerialNum Ser-")));
        Registry().clear();

        // What an earlier command has printed is not taken for the number.
        Answer(events[2].substr(12, events[2].find(" 2>") - 12), "exists");
        const CRyError error = create();
        ExpectError(error, 774, "cmd " + command + " completed without any output");
        EXPECT_THAT(error.Location()->Function(), HasSubstr("MoScsiSrvLIO::CreateLun_BStor"));
        EXPECT_EQ(Errors(), Strings());
        g_os.fail[OsSeams::kPopen] = {3, ENOMEM};
        const std::string failure = "popen error cmd  " + Lower(command) + " failed";  // two blanks
        ExpectError(create(), 774, failure);
        EXPECT_THAT(Errors(), ElementsAre(failure));

        list("x none [" + object + "]\\n");
        EXPECT_THROW(create(), std::invalid_argument);
        EXPECT_EQ(journal.Events().back(), "[2] TargetCliReadObject: none");
        ConfigurationMutex().unlock();
        EXPECT_EQ(lun.lunNum, 0xFFFFFFFFU);
        EXPECT_EQ(Registry().size(), 0U);
    }
}
