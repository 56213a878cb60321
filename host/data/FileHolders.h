#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <filesystem>
#include <set>
#include <string>

/// How a process must have a file open to be named.
enum class Hold { Any, Writing };

/// Which process has a file open, found by looking through /proc: for the line that says whom to
/// stop. Processes in `except` don't count. Other containers' and the kernel's own use isn't seen.
/// Returns: "process 12 (qemu-system-x86)"; empty when none is found.
/// Thread: any.
std::string HolderOf(const struct stat& file, Hold hold, const std::set<pid_t>& except);

/// Which loop device is writable and has the file behind it. `sysBlock`: /sys/dev/block.
/// Returns: "the loop device loop3"; empty when there is none.
std::string LoopDeviceOf(const struct stat& file, const std::filesystem::path& sysBlock);
