#pragma once

/// Asks the kernel for the generic netlink family through which target_core_user announces devices
/// (controller command GETFAMILY).
/// Returns: whether it is registered; false too when the kernel can't be asked.
bool TcmuFamilyRegistered();
