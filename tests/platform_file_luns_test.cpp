// File and block LUNs: what is checked before any command, the backing file, and numbers.

#include <sys/stat.h>

#include <cerrno>
#include <fstream>

#include "tests/support/PlatformFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

struct PlatformFileLunsTest : MoScsiSrvLIOTest {
    MoScsiSrvLun FileLun(const std::string& file, uint64_t size) const {
        MoScsiSrvLun lun = Lun(BSTOR_FILE);
        lun.path = dir.path + "/" + file;
        lun.size = size;
        return lun;
    }
    /// Expects that the create fails before it touches LIO or the record.
    void ExpectRefused(MoScsiSrvLun lun, int code, const std::string& message,
                       const Strings& logged) {
        SCOPED_TRACE(message);
        const std::string path = lun.path;
        journal.Reset(5);
        const CRyError error = Platform().CreateLun(&lun);
        EXPECT_TRUE(error.IsError());
        EXPECT_EQ(error.Number(), code);
        EXPECT_EQ(error.Message(), message);
        EXPECT_THAT(journal.Events(), testing::ElementsAreArray(logged));
        EXPECT_EQ(lun.serialNum, "Ser");
        // What an entry logs and where its errors come from is that entry, whatever it shares.
        const std::string entry = std::string("CRyError MoScsiSrvLIO::CreateLun_BStor") +
                                  (lun.bstorType == BSTOR_FILE ? "File" : "BlkDev") +
                                  "(MoScsiSrvLun_t*)";
        EXPECT_EQ(error.Location()->Function(), entry);
        EXPECT_EQ(error.Location()->File(), "MoScsiSrvLIO");
        for (const CapturingLogWriter::Line& m : journal.Lines())
            EXPECT_EQ(m.function, entry);
    }
    static off_t Size(const std::string& path) {
        struct stat status = {};
        return stat(path.c_str(), &status) == 0 ? status.st_size : -1;
    }
};

TEST_F(PlatformFileLunsTest, NumbersOutsideTheRangeAreRefused) {
    for (const uint32_t number : {65535U, 0x80000000U, 0xFFFFFFFEU}) {
        const std::string text = "invalid lun number " + std::to_string(static_cast<int>(number));
        ExpectRefused(Lun(BSTOR_FILE, number), 22, text, {"[-1] " + text});
        MoScsiSrvLun lun = Lun(BSTOR_USER, number);
        Version() = kOld;  // before the choice of path
        EXPECT_EQ(Platform().CreateLun(&lun).Number(), 22);
        Version() = kNew;
    }
    for (const uint32_t number : {0U, 65534U}) {
        MoScsiSrvLun lun = FileLun("f", 1);
        lun.lunNum = number;
        journal.Reset(5);
        EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
        EXPECT_THAT(Commands()[1], HasSubstr(" lun=" + std::to_string(number) + " "));
    }
}

TEST_F(PlatformFileLunsTest, UnknownTypesRunNothing) {
    for (const uint32_t type : {0U, 5U, 0xFFFFFFFFU}) {
        MoScsiSrvLun lun = Lun(type);
        const std::string text = "invalid bstore type " + std::to_string(static_cast<int>(type));
        for (const CRyError& error : {Platform().CreateLun(&lun), Platform().DeleteLun(&lun)}) {
            EXPECT_EQ(error.Number(), 774);
            EXPECT_EQ(error.Message(), text);
        }
    }
    EXPECT_THAT(journal.Events(), Not(testing::Contains(HasSubstr("$"))));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(PlatformFileLunsTest, WhatIsWrongWithThePathIsSaid) {
    const MoScsiSrvLun lun = FileLun("new", 0);
    const std::string& path = lun.path;
    ExpectRefused(lun, 22, "bstor file size not set " + path,
                  {"[-1] bstor file " + path + " size not set"});
    EXPECT_EQ(Size(path), -1);

    MoScsiSrvLun sized = FileLun("new", 4096);
    os_seams::FailAt(os_seams::kOpen, 1, EROFS);
    ExpectRefused(sized, EROFS, "bstor file create error " + path,
                  {"[1] creating bstor file " + path,
                   "[-1] creat bstor file " + path + " error " + std::to_string(EROFS)});

    // The close's errno counts, not the write's, and the file stays.
    os_seams::FailAt(os_seams::kPwrite, 1, ENOSPC);
    os_seams::FailAt(os_seams::kClose, 1, EDQUOT);
    ExpectRefused(sized, EDQUOT, "bstor file write error " + path,
                  {"[1] creating bstor file " + path,
                   "[-1] write bstor file " + path + " error " + std::to_string(EDQUOT)});
    EXPECT_EQ(os_seams::Count(os_seams::kClose), 1);
    EXPECT_EQ(Size(path), 0);

    for (const uint32_t type : {BSTOR_FILE, BSTOR_BLKDEV, BSTOR_BLKDEV2}) {
        sized.bstorType = type;
        os_seams::onStat = [](const std::string&, mode_t&) { return EACCES; };
        ExpectRefused(sized, EACCES, "bstor " + path + " stat error",
                      {"[-1] bstor " + path + " stat error " + std::to_string(EACCES)});
        // The code is whatever errno was, even none.
        for (const int left : {0, EXDEV}) {
            os_seams::onStat = [left](const std::string&, mode_t& mode) {
                mode = S_IFDIR | 0755;
                errno = left;
                return 0;
            };
            const std::string kind = type == BSTOR_FILE ? "regular file" : "blk dev";
            const std::string text = "bstor " + path + " is not " + kind;
            ExpectRefused(sized, left,
                          type == BSTOR_FILE ? "bstor " + path + " not regular file" : text,
                          {"[-1] " + text});
        }
    }
    os_seams::onStat = nullptr;
    MoScsiSrvLun missing = FileLun("missing", 4096);
    missing.bstorType = BSTOR_BLKDEV;  // a device is never created
    ExpectRefused(missing, ENOENT, "bstor " + missing.path + " stat error",
                  {"[-1] bstor " + missing.path + " stat error 2"});
    EXPECT_EQ(Size(missing.path), -1);
}

TEST_F(PlatformFileLunsTest, FileIsMadeSparseOrUsedAsItIsAndDeleteKeepsIt) {
    MoScsiSrvLun lun = FileLun("Backing", (uint64_t{5} << 30) + 512);
    const mode_t mask = umask(027);
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    umask(mask);
    EXPECT_THAT(journal.Texts(1), ElementsAre("creating bstor file " + lun.path));
    struct stat status = {};
    ASSERT_EQ(stat(lun.path.c_str(), &status), 0);
    EXPECT_LT(status.st_blocks, 100);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_FALSE(Platform().DeleteLun(&lun).IsError());
    EXPECT_EQ(Size(lun.path), (off_t{5} << 30) + 512);

    lun = FileLun("old", 2);
    std::ofstream(lun.path) << "content";
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    // Even one that appears after it was looked for is not emptied.
    os_seams::onStat = [](const std::string&, mode_t&) { return ENOENT; };
    EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
    std::string content;
    std::ifstream(lun.path) >> content;
    EXPECT_EQ(content, std::string("c\0ntent", 7));
}

TEST_F(PlatformFileLunsTest, SerialNumberDependsOnTheVersionAsTextAndGrows) {
    const struct {
        const char* version;
        bool wwn;
    } cases[] = {{"2.1.fb43", true},
                 {"2.1.fb42", false},
                 {"10.0", false},
                 {"2.1.fb100", false},
                 {"", false}};
    MoScsiSrvLun lun = FileLun("f", 1);
    std::string serial = "Ser";
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        Version() = c.version;
        journal.Reset(5);
        EXPECT_FALSE(Platform().CreateLun(&lun).IsError());
        serial += "-" + Guid("iqn.Ab" + lun.path);
        EXPECT_EQ(lun.serialNum, serial);
        const std::string end = c.wwn ? " wwn=" + serial : "";
        EXPECT_EQ(Commands()[0], Updating("targetcli /backstores/fileio create file_or_dev=" +
                                          lun.path + " name=" + Name(lun) + end));
    }
}

// Automatic numbers, for every kind of backstore.

struct PlatformAutomaticNumberTest : MoScsiSrvLIOTest,
                                     testing::WithParamInterface<std::pair<uint32_t, std::string>> {
    MoScsiSrvLun lun = Lun(GetParam().first, 0xFFFFFFFF);
    const std::string object = GetParam().second + Name(lun);
    const std::string command = "targetcli /iscsi/iqn.Ab/tpg1/luns ls | grep -w " + object +
                                " | awk '{print $2}' | tr -d '\n' | sed 's/lun//g'";

    PlatformAutomaticNumberTest() {
        os_seams::onStat = [this](const std::string&, mode_t& mode) {
            mode = lun.bstorType == BSTOR_FILE ? S_IFREG : S_IFBLK;
            return 0;
        };
    }
    CRyError Create(const std::string& listing) {
        targetcli.Answer("/iscsi/iqn.ab/tpg1/luns ls", "", listing, 0);
        return Platform().CreateLun(&lun);
    }
    static std::string Line(int number, const std::string& name) {
        return "  o- lun" + std::to_string(number) + " .......... [" + name + " (x)]\\n";
    }
};

INSTANTIATE_TEST_SUITE_P(Backstores, PlatformAutomaticNumberTest,
                         testing::Values(std::pair<uint32_t, std::string>(BSTOR_FILE, "fileio/"),
                                         std::pair<uint32_t, std::string>(BSTOR_BLKDEV, "block/"),
                                         std::pair<uint32_t, std::string>(BSTOR_BLKDEV2, "block/"),
                                         std::pair<uint32_t, std::string>(BSTOR_USER, "user/")));

TEST_P(PlatformAutomaticNumberTest, IsReadFromTheObjectsOwnLine) {
    EXPECT_FALSE(Create("o- luns ... [LUNs: 4]\\n" + Line(4, object + "f") + Line(17, object) +
                        Line(5, "other/" + Name(lun)) + Line(6, "x" + object))
                     .IsError());
    EXPECT_EQ(lun.lunNum, 17U);
    const Strings commands = Commands();
    ASSERT_EQ(commands.size(), 3U);
    EXPECT_THAT(commands[1], Not(HasSubstr(" lun=")));
    EXPECT_EQ(commands[2], Lower(command));
    EXPECT_THAT(journal.Texts(0), ElementsAre(HasSubstr("iqn.Ab Lun 17 SerialNum Ser-")));
}

TEST_P(PlatformAutomaticNumberTest, ThatCannotBeReadIsAnErrorOrLeavesTheConfigurationLocked) {
    const CRyError error = Create("o- luns\\n");
    EXPECT_EQ(error.Number(), 774);
    EXPECT_EQ(error.Message(), "cmd " + command + " completed without any output");
    EXPECT_THAT(error.Location()->Function(), HasSubstr("MoScsiSrvLIO::CreateLun_BStor"));
    EXPECT_THAT(Errors(), IsEmpty());
    os_seams::FailAt(os_seams::kPopen, 3, ENOMEM);
    const std::string failure = "popen error cmd  " + Lower(command) + " failed";  // two blanks
    EXPECT_EQ(Create("").Message(), failure);
    EXPECT_THAT(Errors(), ElementsAre(failure));

    targetcli.Reset();
    EXPECT_THROW(Create("x none [" + object + "]\\n"), std::invalid_argument);
    EXPECT_TRUE(ConfigurationLocked(true));
    EXPECT_EQ(lun.lunNum, 0xFFFFFFFFU);
    EXPECT_EQ(Entries(), 0U);
}
