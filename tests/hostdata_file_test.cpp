// The file behind a LUN: made whole or not at all, and one LUN's alone.
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <fstream>
#include <functional>

#include "host/data/BackingFile.h"
#include "host/data/NewFile.h"
#include "tests/support/HostData.h"

bool g_refuseUnnamed = false;  ///< as a file system does that has no files without a name
std::string g_path;            ///< of the file that is made
/// What was synced, in order, and whether the file had its name by then.
std::vector<std::string> g_steps;
int g_failingSync = 0;  ///< the n-th fsync fails

// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" int __real_fsync(int fd);
extern "C" int __wrap_fsync(int fd) {
    struct stat found = {};
    fstat(fd, &found);
    g_steps.push_back((S_ISDIR(found.st_mode) ? "directory" : std::to_string(found.st_size)) +
                      (std::filesystem::exists(g_path) ? ", named" : ""));
    errno = EIO;
    return g_failingSync-- == 1 ? -1 : __real_fsync(fd);
}

extern "C" int __real_open64(const char* path, int flags, ...);
extern "C" __attribute__((visibility("default"))) int __wrap_open64(const char* path, int flags,
                                                                    mode_t mode) {
    errno = EOPNOTSUPP;
    return g_refuseUnnamed && (flags & O_TMPFILE) == O_TMPFILE ? -1
                                                               : __real_open64(path, flags, mode);
}
// NOLINTEND(bugprone-reserved-identifier)

constexpr uint64_t kSize = uint64_t{64} * 1024;

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
    std::string Create(Provisioning provisioning = Provisioning::Sparse) const {
        std::string error;
        NewFile file;
        const bool made = file.Make(path, kSize, provisioning, error) && file.Publish(error);
        EXPECT_EQ(made, error.empty());
        return error;
    }
    static void Touch(const std::string& name) { std::ofstream(name).put('x'); }

    BackingFile file;
};

TEST_F(Files, ANewFileIsSyncedBeforeItHasItsNameAndItsDirectoryAfter) {
    for (const auto& [refuse, failing] : {std::pair(false, 1), {false, 2}, {true, 1}, {true, 2}}) {
        g_refuseUnnamed = refuse;
        g_failingSync = failing;
        EXPECT_THAT(Create(), HasSubstr("Input/output error"));
        EXPECT_TRUE(std::filesystem::is_empty(directory.path));
    }
    Touch(path + ".new");  // somebody else's
    for (const auto provisioning : kProvisionings) {
        g_steps.clear();
        ASSERT_EQ(Create(provisioning), "");
        EXPECT_THAT(g_steps, ElementsAre("65536", "directory, named"));
        std::ifstream stream(path, std::ios::binary);
        EXPECT_EQ(std::string(std::istreambuf_iterator<char>(stream), {}),
                  std::string(kSize, '\0'));
        struct stat found = {};
        EXPECT_EQ(stat(path.c_str(), &found), 0);
        EXPECT_EQ(found.st_blocks >= blkcnt_t{kSize / 512}, provisioning == Provisioning::Full);
        EXPECT_THAT(Create(), HasSubstr("File exists"));
        EXPECT_TRUE(std::filesystem::remove(path)) << "what was there stays";
        g_refuseUnnamed = !g_refuseUnnamed;
    }
    EXPECT_EQ(std::filesystem::file_size(path + ".new"), 1U) << "it isn't ours";
}

TEST_F(Files, RefusesWhatIsNotTheLunsFile) {
    LunDataConfig config{"a", Backing::File, path, kSize, {}, {}};
    const std::vector<std::pair<std::function<void()>, std::string>> cases = {
        {[] {}, "can't open"},
        {[&] { Touch(path); }, "has 1 bytes, the LUN 65536"},
        {[&] { mkfifo(path.c_str(), 0600); }, "not a regular file"},
        {[&] { std::filesystem::create_symlink("/nowhere/x", path); }, "can't open"},
        {[&] { config.sizeBytes = 0; }, "multiple of 512"},
        {[&] { config.sizeBytes = 1000; }, "multiple of 512"},
        {[&] { config = {"a", Backing::Memory, "", uint64_t{1} << 62U, {}, {}}; }, "LUN smaller"},
    };
    for (const auto& [make, error] : cases) {
        make();
        EXPECT_THAT(Make(config), HasSubstr(error));
        std::filesystem::remove(path);
    }
    Provide(kSize);
    EXPECT_EQ(Open(file), "");
    BackingFile other;
    EXPECT_THAT(Open(other), HasSubstr("in use by another LUN"));
    { const BackingFile moved = std::move(file); }
    struct flock asQemu = {F_RDLCK, SEEK_SET, 100, 1, 0};
    UniqueFd reader(open(path.c_str(), O_RDONLY));
    EXPECT_EQ(fcntl(reader.Get(), F_OFD_SETLK, &asQemu), 0);
    EXPECT_THAT(Open(other), HasSubstr("in use by another LUN"));
    reader.Close();
    EXPECT_EQ(Open(other), "");
}
