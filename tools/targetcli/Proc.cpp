#include "tools/targetcli/Proc.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <vector>

#include "framework/SmallFile.h"

namespace {

std::string FirstLine(pid_t pid, const char* file) {
    return FirstLineOf("/proc/" + std::to_string(pid) + "/" + file);
}

// One line of /proc/locks: "3: FLOCK  ADVISORY  WRITE 412 00:17:903 0 EOF", with "->" behind the
// number when the process waits. The file is DEVICE:INODE, the same text for holder and waiters.
struct FileLock {
    bool waits = false;
    pid_t pid = 0;
    std::string file;
};

std::vector<FileLock> FileLocks() {
    std::vector<FileLock> locks;
    std::istringstream in(ReadSmallFile("/proc/locks").value_or(""));
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        FileLock lock;
        std::string number;
        std::string kind;
        std::string advisory;
        std::string access;
        fields >> number >> kind;
        if (kind == "->") {
            lock.waits = true;
            fields >> kind;
        }
        if (kind == "FLOCK" && fields >> advisory >> access >> lock.pid >> lock.file)
            locks.push_back(lock);
    }
    return locks;
}

pid_t HolderOf(const std::vector<FileLock>& locks, const std::string& file) {
    for (const FileLock& lock : locks)
        if (!lock.waits && lock.file == file)
            return lock.pid;
    return 0;
}

}  // namespace

std::string NameProcess(pid_t pid) {
    if (pid <= 0)
        return "an unknown process";
    const std::string command = FirstLine(pid, "comm");
    return "process " + std::to_string(pid) + (command.empty() ? "" : " (" + command + ")");
}

char ProcessState(pid_t pid) {
    // The command stands in brackets and may hold brackets and blanks itself.
    const std::string line = FirstLine(pid, "stat");
    const size_t bracket = line.rfind(')');
    return bracket != std::string::npos && bracket + 2 < line.size() ? line[bracket + 2] : '?';
}

std::string KernelWait(pid_t pid) {
    const std::string place = FirstLine(pid, "wchan");
    return place.empty() || place == "0" ? "an unknown place" : place;
}

std::optional<pid_t> LockHolder(pid_t group) {
    const std::vector<FileLock> locks = FileLocks();
    for (const FileLock& lock : locks)
        if (lock.waits && lock.pid > 0 && getpgid(lock.pid) == group)
            return HolderOf(locks, lock.file);
    return std::nullopt;
}

pid_t LockHolderOf(int descriptor) {
    struct stat info = {};
    if (fstat(descriptor, &info) != 0)
        return 0;
    std::array<char, 64> file = {};
    snprintf(file.data(), file.size(), "%02x:%02x:%llu", major(info.st_dev), minor(info.st_dev),
             static_cast<unsigned long long>(info.st_ino));
    return HolderOf(FileLocks(), file.data());
}
