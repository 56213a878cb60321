#pragma once

#include <filesystem>
#include <string_view>

/// Writes `value` to an existing attribute file of sysfs or configfs, in one write.
/// Returns: 0 or an errno. Thread: any.
int SysfsWrite(const std::filesystem::path& path, std::string_view value);
