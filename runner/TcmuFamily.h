#pragma once

/// The kernel's generic netlink family through which target_core_user announces devices.
namespace TcmuFamily {

/// Asks the kernel for a generic netlink family (controller command GETFAMILY).
/// Returns: whether it is registered; false too when the kernel can't be asked.
bool Registered(const char* name);

/// Whether target_core_user's family is there.
inline bool Registered() {
    return Registered("TCM-USER");
}

}  // namespace TcmuFamily
