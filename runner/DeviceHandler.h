#pragma once

#include <cstddef>
#include <memory>

#include "framework/MoStatistics.h"

struct tcmu_device;
struct tcmulib_cmd;

/// What serves the commands of one TCMU device, as the runner sees it: the plug-in's
/// MoScsiSrvTcmuDev, whose contract this repeats, or a test's stand-in.
///
/// Thread: Open, Handle and Close never two at once for one device; Counters any.
class DeviceHandler {
  public:
    virtual ~DeviceHandler() = default;

    /// Returns: 0, or a negative errno; then the handler is not used any more.
    virtual int Open() = 0;

    /// Returns: 0, CHECK CONDITION (sense set), -1 not handled; or -2: the command completes later,
    /// perhaps already, and must not be touched any more.
    virtual int Handle(tcmulib_cmd* cmd) = 0;

    /// Asks the host for what it holds, and waits for it without limit.
    virtual void Close() = 0;

    virtual MoStatistics::Counters Counters() = 0;
};

/// Makes the plug-in's handler for a device.
std::unique_ptr<DeviceHandler> MakePluginHandler(tcmu_device* device);
