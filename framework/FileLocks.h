#pragma once

#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/types.h>

#include <array>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "framework/SmallFile.h"

/// Who holds or waits for flock(2)'s locks, as /proc/locks says. Header only, for programs that
/// link nothing of the framework. Thread: any.

/// One line of /proc/locks: "3: FLOCK  ADVISORY  WRITE 412 00:17:903 0 EOF", with "->" behind the
/// number when the process waits. The file is DEVICE:INODE, the same text for holder and waiters.
struct FileLock {
    bool waits = false;
    pid_t pid = 0;  ///< 0 or less: in another namespace, or ended while others share the lock
    std::string file;
};

inline std::vector<FileLock> FileLocks() {
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

/// Returns: a process that holds the file's lock; 0 when none is known.
inline pid_t HolderOf(const std::vector<FileLock>& locks, const std::string& file) {
    for (const FileLock& lock : locks)
        if (!lock.waits && lock.file == file)
            return lock.pid;
    return 0;
}

/// The same of an open file.
inline pid_t LockHolderOf(int descriptor) {
    struct stat info = {};
    if (fstat(descriptor, &info) != 0)
        return 0;
    std::array<char, 64> file = {};
    snprintf(file.data(), file.size(), "%02x:%02x:%llu", major(info.st_dev), minor(info.st_dev),
             static_cast<unsigned long long>(info.st_ino));
    return HolderOf(FileLocks(), file.data());
}
