#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

/// What the plug-in calls of the operating system, watched and made to fail. OsSeams.cpp stands in
/// for these calls in a program that is linked with --wrap; the real ones run unless something is
/// said here. Commands, sleeps, threads made, signals to threads and watched mutexes go to the
/// journal, CapturingLogWriter.
///
/// Thread: what is set here, before other threads run.
struct OsSeams {
    enum Call { kPopen, kClose, kSystem, kThreadCreate, kCalls };

    /// Lets the `nth` call from now on fail with `error`. A close that fails has closed all the
    /// same.
    struct {
        int nth = 0;
        int error = 0;
    } fail[kCalls];

    /// Answers stat64: below 0 asks the real one, 0 finds something of type `mode`, else an errno.
    std::function<int(const std::string& path, mode_t& mode)> onStat;
    std::function<void(const std::string& command)> beforeSystem;
    /// Instead of sleeping. A sleep without it ends the program.
    std::function<void()> onSleep;
};
inline OsSeams g_os;

extern const char* const kFakeTargetCli;  ///< the directory of the fake targetcli

/// Stands in for the TCMU runner's main loop, which also checks what is the same for every run.
struct FakeRunner {
    int result = 0;                 ///< what the main loop returns
    bool waitForInterrupt = false;  ///< return after a signal, not at once

    std::vector<std::string> arguments{};  ///< this and the next: valid once the thread was joined
    bool interrupted = false;
};
inline FakeRunner g_runner;
