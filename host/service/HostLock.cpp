#include "host/service/HostLock.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "framework/SmallFile.h"

std::string HostLock::Take(const std::filesystem::path& runDirectory) {
    std::error_code error;
    // What is there already has its mode from whoever made it.
    if (std::filesystem::create_directories(runDirectory, error))
        chmod(runDirectory.c_str(), S_IRWXU | S_IRGRP | S_IXGRP | S_IROTH | S_IXOTH);
    const std::filesystem::path path = runDirectory / "host.lock";
    m_file = UniqueFd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!m_file.Valid())
        return fmt::format("can't open {} ({}): make {} writable for root", path.string(),
                           strerror(errno), runDirectory.string());
    fchmod(m_file.Get(), S_IRUSR | S_IWUSR);
    if (flock(m_file.Get(), LOCK_EX | LOCK_NB) != 0) {
        std::array<char, 32> holder{};
        [[maybe_unused]] const ssize_t got = read(m_file.Get(), holder.data(), holder.size() - 1);
        return fmt::format(
            "another moscsi-host (process {}) serves this machine: stop that one "
            "first",
            std::string(holder.data(), strcspn(holder.data(), "\n")));
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(m_file.Get(), 0) != 0 || pwrite(m_file.Get(), pid.data(), pid.size(), 0) < 0)
        return fmt::format("can't write {} ({})", path.string(), strerror(errno));
    return {};
}

pid_t HostLock::Holder(const std::filesystem::path& runDirectory) {
    // Its word is taken, since asking for the lock could keep a host that starts from getting it.
    const std::string holder = FirstLineOf(runDirectory / "host.lock");
    if (holder.empty() || FirstLineOf("/proc/" + holder + "/comm") != "moscsi-host")
        return 0;
    return static_cast<pid_t>(std::strtol(holder.c_str(), nullptr, 10));
}
