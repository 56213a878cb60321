#pragma once

#include <sys/types.h>

#include <filesystem>
#include <string>

#include "framework/UniqueFd.h"

/// One host a machine: two would undo each other's work, and the second one's start would destroy
/// the rings of the first one's devices. Held until destruction or the process's end.
class HostLock {
  public:
    /// Takes the lock: a file in `runDirectory`, which is made when it isn't there.
    /// Returns: empty, or one line that says who has it, or what is wrong.
    std::string Take(const std::filesystem::path& runDirectory);

    /// Returns: the host that runs with that directory; 0 when there is none.
    static pid_t Holder(const std::filesystem::path& runDirectory);

  private:
    UniqueFd m_file;
};
