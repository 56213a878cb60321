#pragma once

#include <filesystem>
#include <string>

/// A TCMU device's directory in configfs, and what only configfs says of it. Thread: any.

/// The directory below `core` of the device that UIO calls `uioName`; `uioClass` is
/// /sys/class/uio. UIO names a device "tcm-user/HBA/NAME/CONFIGURATION", and its directory is
/// core/user_HBA/NAME (the kernel's target_core_user.c). Returns: empty when it can't be told.
std::filesystem::path BackstoreOf(const std::filesystem::path& uioClass,
                                  const std::filesystem::path& core, const std::string& uioName);

/// The unit serial as it is now. A device that targetcli makes has none until it was enabled: that
/// is an empty one. Returns: 0, or a negative errno when it can't be read.
int ReadSerial(const std::filesystem::path& backstore, std::string& serial);
