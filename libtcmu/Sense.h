#pragma once

#include <cstdint>

/// Sense data: every code that a user LUN answers with.

/// A sense key (SPC-4, 4.5.6) with additional sense code and qualifier (SPC-4, annex F.2).
struct SenseCode {
    uint8_t key;
    uint16_t ascAscq;
};

namespace Sense {

inline constexpr SenseCode kNone{0x0, 0x0000};
inline constexpr SenseCode kNotReadyBecomingReady{0x2, 0x0401};
inline constexpr SenseCode kNotReadyManualIntervention{0x2, 0x0403};
inline constexpr SenseCode kMediumNotPresent{0x2, 0x3A00};
inline constexpr SenseCode kUnrecoveredReadError{0x3, 0x1100};  ///< of failed writes too
inline constexpr SenseCode kInternalTargetFailure{0x4, 0x4400};
inline constexpr SenseCode kParameterListLengthError{0x5, 0x1A00};
inline constexpr SenseCode kInvalidOperationCode{0x5, 0x2000};
inline constexpr SenseCode kLbaOutOfRange{0x5, 0x2100};
inline constexpr SenseCode kInvalidFieldInCdb{0x5, 0x2400};
inline constexpr SenseCode kInvalidFieldInParameterList{0x5, 0x2600};
inline constexpr SenseCode kSavingParametersNotSupported{0x5, 0x3900};

}  // namespace Sense

/// Writes 18 bytes of fixed-format sense data for a current error.
/// Returns: TCMU_STATUS_CHECK_CONDITION.
int SetSense(uint8_t* sense, SenseCode code);
