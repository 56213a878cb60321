#pragma once

#include <cstdint>

#include "adapters/libtcmu/libtcmu.h"

/// A sense key (SPC-4, 4.5.6) with additional sense code and qualifier (SPC-4, annex F.2).
struct SenseCode {
    uint8_t key;
    uint16_t ascAscq;
};

/// NOT READY, logical unit is in process of becoming ready.
inline constexpr SenseCode kSenseBecomingReady{0x2, 0x0401};
/// MEDIUM ERROR, unrecovered read error; stands for failed writes too.
inline constexpr SenseCode kSenseMediumError{0x3, 0x1100};
/// HARDWARE ERROR, internal target failure.
inline constexpr SenseCode kSenseTargetFailure{0x4, 0x4400};
/// ILLEGAL REQUEST, invalid field in CDB.
inline constexpr SenseCode kSenseInvalidField{0x5, 0x2400};

/// Writes the code into a command's sense buffer. Returns: the CHECK CONDITION status.
inline int SetSense(uint8_t* sense, const SenseCode& code) {
    return tcmu_set_sense_data(sense, code.key, code.ascAscq);
}
