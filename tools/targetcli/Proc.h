#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

/// What /proc tells about a process that doesn't end, and about who holds the lock it waits for.
/// Nothing here throws or waits.

/// A process as error lines name it: "process 17 (python3)", without the name when it is gone.
std::string NameProcess(pid_t pid);

/// The state letter of a process (proc(5): 'D' is the kernel's uninterruptible wait), '?' if gone.
char ProcessState(pid_t pid);

/// The kernel function that a process waits in, "an unknown place" when the kernel doesn't tell.
std::string KernelWait(pid_t pid);

/// Looks for a process of group `group` that waits in flock(2), and for who has what it waits for.
/// The lock is known by its waiter, so it doesn't matter where this version of targetcli keeps it.
///
/// Returns: nothing when no process of the group waits; otherwise the holder, 0 when the table
/// doesn't name it (a process outside of this PID namespace).
std::optional<pid_t> LockHolder(pid_t group);
