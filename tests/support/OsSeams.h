#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

/// What the plug-in calls of the operating system, watched and made to fail. OsSeams.cpp stands in
/// for these calls in programs that are linked with --wrap (moscsi_wrap_os in CMakeLists.txt); the
/// real ones run unless something is said here. Commands, sleeps, signals to threads and watched
/// mutexes go to the journal, CapturingLogWriter.
///
/// Thread: what is set here, before other threads run.
namespace os_seams {

enum Call { kPopen, kOpen, kPwrite, kClose, kSystem, kThreadCreate, kCalls };

/// Puts everything back to the real calls, and the counts to zero.
void Reset();

/// Lets the `nth` call from now on fail with `error`. A close that fails has closed all the same.
void FailAt(Call call, int nth, int error);

/// Calls since the last Reset, failed ones included.
int Count(Call call);

/// Pipes of popen that aren't closed yet.
int OpenPipes();

/// Threads that have begun to lock this mutex since the last Reset; null counts none.
int LockAttempts(const void* mutex);

/// Answers stat64: below 0 asks the real one, 0 finds something of type `mode`, else an errno.
extern std::function<int(const std::string& path, mode_t& mode)> onStat;

/// Around each command of system().
extern std::function<void(const std::string& command)> beforeSystem;

/// Instead of sleeping.
extern std::function<void()> onSleep;

/// As a thread is about to be made.
extern std::function<void()> onThreadCreate;

}  // namespace os_seams
