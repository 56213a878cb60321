#pragma once

#include <string>

/// What the host asks beside the platform interface. Stateless; linked into host and plug-in.
///
/// Thread: any.
class Platform_Util {
  public:
    Platform_Util() = default;
    ~Platform_Util() = default;

    /// The TCP port on which this machine serves iSCSI.
    /// Returns: the port, or -1 when the machine is not a client of the server or has no such
    /// property. Nothing is logged.
    static int GetScsiServicePort();

    /// Forms a unit serial number: `prefix`, a hyphen, the GUID of `text`.
    /// `serial` may be the same object as `prefix`; it grows each time it is used so.
    static void GetSerialNumber(const std::string& prefix, const std::string& text,
                                std::string& serial);
};
