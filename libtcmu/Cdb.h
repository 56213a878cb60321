#pragma once

#include <cstddef>
#include <cstdint>

#include "libtcmu/Opcodes.h"

/// Command descriptor blocks: lengths, and big-endian fields (SPC-4, 4.2; SBC-3, 5).

inline constexpr uint8_t kVariableLengthCdb = 0x7F;

inline uint16_t LoadBe16(const uint8_t* bytes) {
    return static_cast<uint16_t>((uint32_t{bytes[0]} << 8U) | bytes[1]);
}
inline uint32_t LoadBe32(const uint8_t* bytes) {
    return (uint32_t{LoadBe16(bytes)} << 16U) | LoadBe16(bytes + 2);
}
inline uint64_t LoadBe64(const uint8_t* bytes) {
    return (uint64_t{LoadBe32(bytes)} << 32U) | LoadBe32(bytes + 4);
}

/// The CDB's length in bytes, as the kernel passes it: by the opcode's group, the groups without a
/// length in the standard included; a variable-length CDB states its own in byte 7.
size_t CdbLength(const uint8_t* cdb);

/// A field of a CDB. Storing drops what doesn't fit, and overwrites whole bytes.
uint64_t LoadField(const uint8_t* cdb, CdbField field);
void StoreField(uint8_t* cdb, CdbField field, uint64_t value);
bool FitsField(CdbField field, uint64_t value);
