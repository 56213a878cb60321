#include "host/service/EarlierCommands.h"

#include <fcntl.h>
#include <sys/file.h>

#include <cerrno>
#include <thread>

#include "framework/FileLocks.h"
#include "framework/UniqueFd.h"

pid_t EarlierCommand(const std::filesystem::path& runDirectory) {
    // Let go at once: a wrapper that starts now waits for a moment only.
    const UniqueFd lock(open((runDirectory / "targetcli/running").c_str(), O_RDWR | O_CLOEXEC));
    if (!lock.Valid() || flock(lock.Get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
        return 0;
    const pid_t holder = LockHolderOf(lock.Get());
    return holder > 0 ? holder : -1;
}

pid_t WaitForEarlierCommands(const std::filesystem::path& runDirectory, std::chrono::seconds limit,
                             const std::function<bool()>& stopAsked) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const pid_t process = EarlierCommand(runDirectory);
        if (process == 0 || stopAsked() || std::chrono::steady_clock::now() >= deadline)
            return process;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}
