#pragma once

#include <cstdint>

/// The numbers of the errors that the plug-in makes of its own; every other number is the errno of
/// a call that failed. Hosts and operators know them: they never change.

/// A command, the service script or targetcli failed, or answered what can't be gone on with; or
/// the LUN is of no kind that there is, or isn't there. Any operation that runs commands.
inline constexpr int32_t kErrorFailed = 774;

/// A LUN's record has a field that can't be used (EINVAL): its number, or the size of a backing
/// file that is to be made; or no number is free. CreateLun.
inline constexpr int32_t kErrorInvalid = 22;

/// What a user LUN would be made of is there already, without its LUN (EBUSY). CreateLun.
inline constexpr int32_t kErrorInUse = 16;
