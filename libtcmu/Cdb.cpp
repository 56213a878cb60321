#include "libtcmu/Cdb.h"

#include "libtcmu/libtcmu.h"

namespace {

constexpr size_t BytesOf(CdbField field) {
    return (size_t{field.bits} + 7) / 8;
}

constexpr uint64_t MaskOf(CdbField field) {
    return field.bits == 0 ? 0 : UINT64_MAX >> (64U - field.bits);
}

}  // namespace

size_t CdbLength(const uint8_t* cdb) {
    if (cdb[0] == kVariableLengthCdb)
        return size_t{8} + cdb[7];
    return FormOf(cdb[0]).length;
}

uint64_t LoadField(const uint8_t* cdb, CdbField field) {
    uint64_t value = 0;
    for (size_t i = 0; i < BytesOf(field); ++i)
        value = value << 8U | cdb[field.offset + i];
    return value & MaskOf(field);
}

void StoreField(uint8_t* cdb, CdbField field, uint64_t value) {
    for (size_t i = BytesOf(field); i > 0; --i, value >>= 8U)
        cdb[field.offset + i - 1] = static_cast<uint8_t>(value);
}

bool FitsField(CdbField field, uint64_t value) {
    return (value & ~MaskOf(field)) == 0;
}

uint64_t tcmu_get_lba(const uint8_t* cdb) {
    return LoadField(cdb, FormOf(cdb[0]).lba);
}

uint32_t tcmu_get_xfer_length(const uint8_t* cdb) {
    return static_cast<uint32_t>(LoadField(cdb, FormOf(cdb[0]).blocks));
}
