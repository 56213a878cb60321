#pragma once

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <functional>

/// A targetcli command that a killed host left running: what it does after the comparison with
/// configfs would change what was compared. Returns: a process that runs `wrapper`, the program
/// that the plug-in calls; 0 when there is none.
pid_t EarlierCommand(const std::filesystem::path& wrapper);

/// Waits until there is none. `stopAsked` ends the wait early.
/// Returns: 0, or the process that still runs when the limit has passed.
pid_t WaitForEarlierCommands(const std::filesystem::path& wrapper, std::chrono::seconds limit,
                             const std::function<bool()>& stopAsked);
