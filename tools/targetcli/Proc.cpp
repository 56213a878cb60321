#include "tools/targetcli/Proc.h"

#include <unistd.h>

#include <vector>

#include "framework/FileLocks.h"

namespace {

std::string FirstLine(pid_t pid, const char* file) {
    return FirstLineOf("/proc/" + std::to_string(pid) + "/" + file);
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
