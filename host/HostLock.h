#pragma once

#include <filesystem>
#include <string>

namespace moscsi::host {

/// One host a machine: two would undo each other's work, and the second one's start would destroy
/// the rings of the first one's devices. Held until destruction or the process's end.
class HostLock {
  public:
    HostLock() = default;
    ~HostLock();
    HostLock(const HostLock&) = delete;
    HostLock& operator=(const HostLock&) = delete;

    /// Takes the lock: a file in `runDirectory`, which is made when it isn't there.
    /// Returns: empty, or one line that says who has it, or what is wrong.
    std::string Take(const std::filesystem::path& runDirectory);

  private:
    int m_file = -1;
};

}  // namespace moscsi::host
