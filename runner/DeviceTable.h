#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <vector>

#include "framework/Mutex.h"
#include "runner/DeviceServer.h"

/// The devices that are served now; what libtcmu's callbacks work on.
///
/// Its mutex covers the table only: it is never held while a command runs, a handler opens or
/// closes, or configfs is touched, so a callback never waits for any of these by it.
///
/// Thread: any; libtcmu's callbacks one at a time.
class DeviceTable {
  public:
    explicit DeviceTable(const RunnerEnvironment& environment) : m_environment(environment) {}

    /// libtcmu's `added`. Returns: 0, or a negative errno (logged).
    int Added(LibDevice* device) MO_EXCLUDES(m_mutex);

    /// libtcmu's `removed`: returns when nothing points into the device's ring any more. A device
    /// that isn't served is ignored, so that the kernel gets its answer in every case.
    void Removed(LibDevice* device) MO_EXCLUDES(m_mutex);

    /// Whether all devices are drained. Looks into the rings, so it excludes `removed`.
    bool Drained() MO_EXCLUDES(m_mutex);

    /// The devices' directories in configfs.
    std::vector<std::filesystem::path> Backstores() MO_EXCLUDES(m_mutex);

    /// All devices. Requires: libtcmu calls nothing back meanwhile.
    std::vector<DeviceServer*> Servers() MO_EXCLUDES(m_mutex);

  private:
    int Serve(LibDevice* device) MO_EXCLUDES(m_mutex);

    const RunnerEnvironment m_environment;
    Mutex m_mutex;
    std::map<LibDevice*, std::unique_ptr<DeviceServer>> m_servers MO_GUARDED_BY(m_mutex);
};
