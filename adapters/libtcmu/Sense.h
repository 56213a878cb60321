#pragma once

#include <cstdint>

/// Sense data of the layers below the plug-in.

/// A sense key with additional sense code and qualifier (SPC-4, 4.5.6).
struct SenseCode {
    uint8_t key;
    uint16_t ascAscq;
};

namespace Sense {

inline constexpr SenseCode kNotReadyBecomingReady{0x2, 0x0401};
inline constexpr SenseCode kMediumNotPresent{0x2, 0x3A00};
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
