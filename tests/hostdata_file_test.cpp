// The file behind a LUN: made whole or not at all, and one LUN's alone.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <functional>

#include "host/data/BackingFile.h"
#include "host/data/LunData.h"
#include "tests/support/NullPlatform.h"
#include "tests/support/TempDirectory.h"

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
using Path = const char*;
extern "C" int __real_link(Path from, Path to);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_link(Path from, Path to) {  // NOLINT(bugprone-reserved-identifier)
    g_steps.emplace_back("name");
    return __real_link(from, to);
}

namespace moscsi::data {
namespace {

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr uint64_t kSize = 64 * 1024;

struct Files : testing::Test {
    Files() { g_steps.clear(); }

    std::string Open(BackingFile& file) {
        std::string error;
        const bool opened = file.Open(path, kSize, error);
        EXPECT_EQ(opened, error.empty());
        EXPECT_EQ(opened, file.Fd() >= 0);
        EXPECT_TRUE(!opened || fcntl(file.Fd(), F_GETFD) == FD_CLOEXEC);
        return error;
    }
    std::vector<std::string> Left() const {
        std::vector<std::string> names;
        for (const auto& each : std::filesystem::directory_iterator(directory.path))
            names.push_back(each.path().filename());
        return names;
    }
    static void Touch(const std::string& name) { std::ofstream(name).put('x'); }

    TempDirectory directory;
    std::string path = directory.path / "data";
    BackingFile file;
};

TEST_F(Files, ANewFileIsSyncedBeforeItHasItsNameAndItsDirectoryAfter) {
    Touch(path + ".new");  // a crash left it
    ASSERT_EQ(Open(file), "");
    EXPECT_THAT(g_steps, ElementsAre("sync 65536 bytes", "name", "sync directory"));
    EXPECT_THAT(Left(), ElementsAre("data"));
    EXPECT_EQ(std::filesystem::file_size(path), kSize);
    char first = 'x';
    EXPECT_EQ(pread(file.Fd(), &first, 1, 0), 1);
    EXPECT_EQ(first, '\0');
}

TEST_F(Files, NothingIsLeftWhenASyncFails) {
    for (const int failing : {1, 2}) {
        g_failingSync = failing;
        EXPECT_THAT(Open(file), HasSubstr("Input/output error"));
        EXPECT_THAT(Left(), IsEmpty());
    }
}

TEST_F(Files, OneFileServesOneLun) {
    ASSERT_EQ(Open(file), "");
    BackingFile other;
    EXPECT_THAT(Open(other), HasSubstr("in use by another LUN"));
    { const BackingFile moved = std::move(file); }
    EXPECT_EQ(Open(other), "");
    EXPECT_EQ(g_steps.size(), 3U) << "an existing file is not made again";
}

TEST_F(Files, RefusesWhatIsNotTheLunsFile) {
    const auto makeElsewhere = [&] {
        const int fd = open((path + ".new").c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(flock(fd, LOCK_EX), 0);  // kept: another host is making it
    };
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { Touch(path); }, "has 1 bytes, the LUN 65536"},
        {[&] { mkfifo(path.c_str(), 0600); }, "not a regular file"},
        {[&] { std::filesystem::create_symlink("/nowhere/x", path); }, "can't open"},
        {makeElsewhere, ".new is in use"},
        {[&] { path = directory.path / "no/such"; }, "can't make"},
    };
    for (const auto& [make, error] : cases) {
        make();
        EXPECT_THAT(Open(file), HasSubstr(error));
        std::filesystem::remove(path);
    }
}

TEST(LunDataMaking, SaysWhatIsWrongInOneLine) {
    NullPlatform platform;
    const std::pair<LunDataConfig, std::string> cases[] = {
        {{"a", Backing::Memory, "", 0, {}, {}}, "a size of 0 bytes"},
        {{"b", Backing::File, "/x", 1000, {}, {}}, "a size of 1000 bytes"},
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
