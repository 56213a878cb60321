#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "framework/UniqueFd.h"

struct Command {
    std::string program;                 ///< path
    std::vector<std::string> arguments;  ///< without the program's own name
    std::string home;                    ///< TARGETCLI_HOME for it
    /// What the child does itself instead of becoming a program; returns its exit status.
    std::function<int()> work = {};
};

/// One started program, or work done in a fork, and its way to an end. It leads a process group of
/// its own, so that whatever it started ends with it; it has no descriptor but 0, 1 and 2, no
/// blocked signals, SIGPIPE as by default, a C locale and no Python warnings (targetcli's first
/// line of standard error decides about success, so a warning there would be read as a failure). It
/// is killed when the wrapper dies, since it would go on holding targetcli's lock.
///
/// Threads: used by one thread. Start it from the thread that outlives it.
/// Ownership: the destructor kills a process that is still running, and waits for it no more.
class ChildProcess {
  public:
    ChildProcess() = default;
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    /// Starts `command` with standard output and standard error on the given descriptors.
    /// Standard input is the wrapper's own, or nothing when that is a terminal.
    /// Returns: 0 or errno, also that of a program that can't be executed.
    int Start(const Command& command, int outFd, int errFd);

    pid_t Pid() const { return m_pid; }

    /// A descriptor that polls readable once the process has ended.
    int ExitFd() const { return m_exit.Get(); }

    /// Ends what is left of the group and takes the status, as waitpid(2) gives it.
    /// Requires: the process has ended.
    int Reap();

    /// Kills the whole group and gives the process `patience` to be gone.
    /// Returns: false when it isn't: it hangs in the kernel, and is left alone from now on.
    bool Kill(std::chrono::milliseconds patience);

  private:
    pid_t m_pid = -1;  // -1: not started, reaped or left alone
    UniqueFd m_exit;
};
