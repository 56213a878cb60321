#pragma once

/// The generic netlink family through which target_core_user announces devices.
inline constexpr const char* kTcmuFamily = "TCM-USER";

/// Asks the kernel for a generic netlink family (controller command GETFAMILY).
/// Returns: whether it is registered; false too when the kernel can't be asked.
bool NetlinkFamilyRegistered(const char* name);
