#pragma once

#include <cstdint>
#include <string>

#include "framework/Export.h"

/// A machine as a client of the server.
class MO_EXPORT MOClient {
  public:
    MOClient(const char* machine, bool reservedFlag, int reserved);

    /// Fills `id` with the client's id; a machine that isn't a client leaves it as it is.
    /// Returns: 0 when found, otherwise non-zero.
    int getClientId(uint64_t& id, void* reserved) const;

  private:
    std::string m_machine;
};

/// The properties of one client.
class MO_EXPORT ClientProperties {
  public:
    explicit ClientProperties(uint64_t id);

    /// Fills `port` with the TCP port of the client's iSCSI service.
    /// Returns: 0 on success, otherwise non-zero.
    int getISCSIPort(int& port, void* reserved) const;

  private:
    uint64_t m_id;
};
