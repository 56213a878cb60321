#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "libtcmu/CommandRing.h"
#include "libtcmu/LibtcmuApi.h"
#include "libtcmu/libtcmu.h"

/// The sub-type of our backstores in its canonical letter case.
inline constexpr std::string_view kCanonicalSubType = "MoScsiSrvTcmu";

/// Gives the sub-type of a configuration string back in its canonical case: targetcli's command
/// lines are lower-cased as a whole, and the registry knows the LUN by the canonical string. Any
/// other string is returned as it is.
std::string CanonicalCfgString(std::string_view cfgString);

/// The longest transfer that VPD page 0xB0 states for a device that says nothing else, in bytes:
/// LIO's own default, 128 sectors.
inline constexpr uint32_t kDefaultMaxTransferBytes = 64 * 1024;

/// One TCMU device: libtcmu's record, its command ring, and what the handler keeps with it.
///
/// Made by the runner when libtcmu says that the device was added, destroyed when it is removed,
/// with nothing in flight. It borrows libtcmu's descriptor and mapping.
/// Thread: the fields below `ring` are set before the device's thread starts, or on it.
struct tcmu_device {
    tcmu_device(LibtcmuApi& libtcmu, LibDevice* libDevice);

    LibtcmuApi& api;
    LibDevice* const lib;
    const std::string cfgString;  ///< canonical
    CommandRing ring;

    uint32_t blockSize = 0;
    uint64_t numLbas = 0;
    /// What VPD page 0xB0 states, in blocks; 0: kDefaultMaxTransferBytes.
    uint32_t maxTransferBlocks = 0;
    void* priv = nullptr;

    /// Runs in tcmulib_command_complete, on the completing thread, before the answer is written:
    /// it may change the result, and gives the command its readLength. Set before commands flow.
    std::function<void(RingCommand& command, int& result)> completionHook;

  private:
    tcmu_device(LibtcmuApi& libtcmu, LibDevice* libDevice, LibtcmuApi::Memory memory);
};
