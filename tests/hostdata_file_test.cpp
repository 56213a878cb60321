// The file behind a LUN: made whole or not at all, and one LUN's alone.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <functional>

#include "host/data/BackingFile.h"
#include "tests/support/HostData.h"

std::string g_path;  ///< of the file that is made
/// What was synced, in order, and whether the file had its name by then.
std::vector<std::string> g_steps;
int g_failingSync = 0;  ///< the n-th fsync fails

extern "C" int __real_fsync(int fd);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_fsync(int fd) {  // NOLINT(bugprone-reserved-identifier)
    struct stat found = {};
    fstat(fd, &found);
    g_steps.push_back((S_ISDIR(found.st_mode) ? "directory" : std::to_string(found.st_size)) +
                      (std::filesystem::exists(g_path) ? ", named" : ""));
    errno = EIO;
    return g_failingSync-- == 1 ? -1 : __real_fsync(fd);
}

constexpr uint64_t kSize = 64 * 1024;

struct Files : LunTest {
    Files() { g_path = path; }

    std::string Open(BackingFile& file) {
        std::string error;
        const bool opened = file.Open(path, kSize, error);
        EXPECT_EQ(opened, error.empty());
        EXPECT_TRUE(!opened || fcntl(file.Fd(), F_GETFD) == FD_CLOEXEC);
        EXPECT_TRUE(!opened || (fcntl(file.Fd(), F_GETFL) & O_NONBLOCK) == 0) << "no -EAGAIN";
        return error;
    }
    static void Touch(const std::string& name) { std::ofstream(name).put('x'); }

    BackingFile file;
};

TEST_F(Files, ANewFileIsSyncedBeforeItHasItsNameAndItsDirectoryAfter) {
    for (const int failing : {1, 2}) {
        g_failingSync = failing;
        EXPECT_THAT(Open(file), HasSubstr("Input/output error"));
        EXPECT_TRUE(std::filesystem::is_empty(directory.path));
    }
    g_steps.clear();
    Touch(path + ".new");  // a crash left it
    ASSERT_EQ(Open(file), "");
    EXPECT_THAT(g_steps, ElementsAre("65536", "directory, named"));
    EXPECT_FALSE(std::filesystem::exists(path + ".new"));
    std::ifstream stream(path, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}), std::string(kSize, '\0'));

    BackingFile other;
    EXPECT_THAT(Open(other), HasSubstr("in use by another LUN"));
    { const BackingFile moved = std::move(file); }
    EXPECT_EQ(Open(other), "");
    EXPECT_EQ(g_steps.size(), 2U) << "an existing file is not made again";
}

TEST_F(Files, RefusesWhatIsNotTheLunsFile) {
    const auto makeElsewhere = [&] {
        const int fd = open((path + ".new").c_str(), O_CREAT | O_RDWR, 0600);
        EXPECT_EQ(flock(fd, LOCK_EX), 0);  // kept: another host is making it
    };
    LunDataConfig config{"a", Backing::File, path, kSize, {}, {}};
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[&] { Touch(path); }, "has 1 bytes, the LUN 65536"},
        {[&] { mkfifo(path.c_str(), 0600); }, "not a regular file"},
        {[&] { std::filesystem::create_symlink("/nowhere/x", path); }, "can't open"},
        {makeElsewhere, ".new is in use"},
        {[&] { config.path = directory.path / "no/such"; }, "can't make"},
        {[&] { config.sizeBytes = 0; }, "multiple of 512"},
        {[&] { config.sizeBytes = 1000; }, "multiple of 512"},
        {[&] { config = {"a", Backing::Memory, "", uint64_t{1} << 62U, {}, {}}; }, "LUN smaller"},
    };
    for (const auto& [make, error] : cases) {
        make();
        EXPECT_THAT(Make(config), HasSubstr(error));
        std::filesystem::remove(path);
    }
}
