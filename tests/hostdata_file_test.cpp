// The file behind a LUN: made whole or not at all, and one LUN's alone.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

#include "host/data/BackingFile.h"
#include "host/data/LunData.h"
#include "tests/support/HostData.h"

namespace {

// What was synced and named, in order; the n-th fsync fails.
std::vector<std::string> g_steps;
int g_failingSync = 0;

}  // namespace

extern "C" int __real_fsync(int fd);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_fsync(int fd) {  // NOLINT(bugprone-reserved-identifier)
    struct stat found = {};
    fstat(fd, &found);
    g_steps.push_back(S_ISDIR(found.st_mode) ? "sync directory"
                                             : "sync " + std::to_string(found.st_size) + " bytes");
    if (g_failingSync > 0 && --g_failingSync == 0) {
        errno = EIO;
        return -1;
    }
    return __real_fsync(fd);
}
extern "C" int __real_link(const char* from,
                           const char* to);  // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_link(const char* from,
                           const char* to) {  // NOLINT(bugprone-reserved-identifier)
    g_steps.emplace_back("name");
    return __real_link(from, to);
}

namespace moscsi::data {
namespace {

using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using hostdata_test::Touch;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kSize = 64 * 1024;

class Files : public testing::Test {
  protected:
    void SetUp() override {
        g_steps.clear();
        g_failingSync = 0;
    }
    std::string Open(BackingFile& file, uint64_t size) {
        std::string error;
        const bool opened = file.Open(m_path, size, error);
        EXPECT_EQ(opened, error.empty());
        return error;
    }
    std::vector<std::string> Left() const {
        std::vector<std::string> names;
        for (const auto& each : std::filesystem::directory_iterator(m_directory.File("")))
            names.push_back(each.path().filename());
        return names;
    }

    Directory m_directory;
    std::string m_path = m_directory.File("data");
};

TEST_F(Files, ANewFileIsSyncedBeforeItHasItsNameAndItsDirectoryAfter) {
    Touch(m_path + ".new");  // a crash left it
    BackingFile file;
    ASSERT_EQ(Open(file, kSize), "");
    EXPECT_THAT(g_steps, ElementsAre("sync 65536 bytes", "name", "sync directory"));
    EXPECT_THAT(Left(), ElementsAre("data"));
    EXPECT_EQ(std::filesystem::file_size(m_path), kSize);
    char first = 'x';
    EXPECT_EQ(pread(file.Fd(), &first, 1, 0), 1);
    EXPECT_EQ(first, '\0');
    EXPECT_EQ(fcntl(file.Fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(Files, NothingIsLeftWhenASyncFails) {
    for (const int failing : {1, 2}) {
        g_failingSync = failing;
        BackingFile file;
        EXPECT_THAT(Open(file, kSize), HasSubstr("Input/output error"));
        EXPECT_EQ(file.Fd(), -1);
        EXPECT_THAT(Left(), IsEmpty());
    }
}

TEST_F(Files, OneFileServesOneLun) {
    BackingFile file;
    ASSERT_EQ(Open(file, kSize), "");
    BackingFile other;
    EXPECT_THAT(Open(other, kSize), HasSubstr("in use by another LUN"));
    { const BackingFile moved = std::move(file); }
    EXPECT_EQ(Open(other, kSize), "");
    EXPECT_EQ(fcntl(other.Fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(g_steps.size(), 3U);  // an existing file is not made again
}

TEST_F(Files, RefusesWhatIsNotTheLunsFile) {
    struct Case {
        std::function<void(const std::string&)> make;
        std::string error;
    };
    const std::vector<Case> cases = {
        {[](const std::string& path) { Touch(path); }, "has 1 bytes, the LUN 65536"},
        {[](const std::string& path) { mkfifo(path.c_str(), 0600); }, "not a regular file"},
        {[](const std::string& path) { std::filesystem::create_directory(path); }, "can't open"},
        {[](const std::string& path) { std::filesystem::create_symlink("/nowhere/x", path); },
         "can't open"},
        {[](const std::string& path) {
             const int fd = open((path + ".new").c_str(), O_CREAT | O_RDWR, 0600);
             EXPECT_EQ(flock(fd, LOCK_EX), 0);  // kept: another host is making it
         },
         ".new is in use"},
    };
    for (const Case& each : cases) {
        each.make(m_path);
        BackingFile file;
        EXPECT_THAT(Open(file, kSize), HasSubstr(each.error));
        EXPECT_EQ(file.Fd(), -1);
        std::filesystem::remove(m_path);
    }
    m_path = m_directory.File("no/such");
    BackingFile file;
    EXPECT_THAT(Open(file, kSize), HasSubstr("can't make"));
}

TEST(LunDataMaking, SaysWhatIsWrongInOneLine) {
    FakePlatform platform;
    const Directory directory;
    const std::string path = directory.File("data");
    const std::vector<std::pair<LunDataConfig, std::string>> cases = {
        {{"a", Backing::Memory, "", 0, {}, {}}, "a size of 0 bytes"},
        {{"b", Backing::Memory, "", 1000, {}, {}}, "a size of 1000 bytes"},
        {{"c", Backing::Memory, "", uint64_t{1} << 62U, {}, {}}, "make the LUN smaller"},
        {{"d", Backing::File, "/dev/null", 512, {}, {}}, "/dev/null is not a regular file"},
    };
    for (const auto& [config, error] : cases) {
        const LunDataResult made = MakeLunData(config, platform);
        EXPECT_EQ(made.data, nullptr);
        EXPECT_THAT(made.error, HasSubstr(error));
    }
}

}  // namespace
}  // namespace moscsi::data
