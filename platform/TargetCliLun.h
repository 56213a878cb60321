#pragma once

#include "platform/MoScsiSrvObjects.h"

/// How targetcli names one kind of backstore.
struct TargetCliBackstore {
    const char* directory;  ///< below /backstores/
    const char* listedAs;   ///< what "luns ls" prints before an object's name
};

/// The highest number that a LUN may have.
inline constexpr int kMaxLunNumber = 65534;

/// The number as commands and messages carry it.
inline int SignedLunNumber(const MoScsiSrvLun_t* lun) {
    return static_cast<int>(lun->lunNum);
}

/// Checks that the LUN's number is automatic or between 0 and kMaxLunNumber.
/// `function`: the signature of the entry that checks.
/// Errors: kErrorInvalid (logged).
CRyError CheckLunNumber(const char* function, const MoScsiSrvLun_t* lun);
