#pragma once

#include <filesystem>

/// Frees what waits in the kernel for a process that died.
///
/// Enabling and removing a TCMU device waits in the kernel for user space's answer, without limit.
/// Module parameters of target_core_user end that wait (block_netlink = 1, then reset_netlink = 1);
/// while they block, a new device is refused instead of announced. Unblocked by Unblock, and by the
/// destructor on every other way out.
///
/// Thread: one.
class NetlinkReset {
  public:
    /// `parameters`: the module's directory of parameters in sysfs.
    explicit NetlinkReset(std::filesystem::path parameters);
    ~NetlinkReset();

    NetlinkReset(const NetlinkReset&) = delete;
    NetlinkReset& operator=(const NetlinkReset&) = delete;

    /// Blocks, then resets. Returns: whether both were written (logged).
    bool BlockAndReset();

    /// Lets the kernel announce devices again. Returns: whether that was written (logged). Harmless
    /// when nothing is blocked.
    bool Unblock();

  private:
    bool Write(const char* parameter, const char* value);

    const std::filesystem::path m_parameters;
    bool m_blocked = false;
};
