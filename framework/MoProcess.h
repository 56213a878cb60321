#pragma once

#include <string>

#include "framework/Export.h"

/// Runs shell commands for host and plug-in.
class MO_EXPORT MoProcess {
  public:
    /// Runs `command` with /bin/sh and collects both streams, of any size, without deadlock.
    /// Either pointer may be null: that stream is thrown away. The child inherits standard input
    /// from /dev/null and no other descriptor. The last two arguments are the host's own, 0 and
    /// false here.
    /// Returns: the exit status; 128 + N for a command ended by signal N; -1 when it couldn't
    /// start. Thread: any.
    static int system(const std::string& command, std::string* standardOutput,
                      std::string* standardError, int reserved, bool reservedFlag);
};
