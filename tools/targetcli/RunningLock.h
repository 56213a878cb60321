#pragma once

#include <fcntl.h>
#include <sys/file.h>

#include <filesystem>

#include "framework/UniqueFd.h"

/// Held, shared, by each process of the wrapper's own that may still change the kernel's target: by
/// it the next host knows what a killed one left running, whichever file the program was started
/// from. Not inherited: a child that does such work takes it for itself. Without a place for it
/// there is none, and the command runs all the same.
inline UniqueFd TakeRunningLock(const std::filesystem::path& stateDir) {
    std::error_code ignored;
    std::filesystem::create_directories(stateDir, ignored);
    UniqueFd lock(open((stateDir / "running").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (lock.Valid())
        flock(lock.Get(), LOCK_SH);
    return lock;
}
