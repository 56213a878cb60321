#pragma once

#include <cstdint>
#include <string>

#include "framework/Export.h"

/// Writes the identifier of `length` bytes at `bytes` into `out`: 32 lower-case hexadecimal digits,
/// the same for the same bytes in every process. Lower case, because names travel through command
/// lines that are lower-cased as a whole.
/// Returns: always true.
/// Thread: any.
MO_EXPORT bool GetGUID(const void* bytes, uint32_t length, std::string& out);
