#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>

/// A targetcli command that a killed host left running: what it does after the comparison with
/// configfs would change what was compared. It is known by a lock that it holds below
/// `runDirectory`. Returns: a process that holds it, -1 for one that can't be named; 0 when there
/// is none.
pid_t EarlierCommand(const std::filesystem::path& runDirectory);

/// Waits until there is none. `stopAsked` ends the wait early.
/// Returns: 0, or the process that still runs when the limit has passed.
pid_t WaitForEarlierCommands(const std::filesystem::path& runDirectory, std::chrono::seconds limit,
                             const std::function<bool()>& stopAsked);
