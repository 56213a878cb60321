#include "adapters/libtcmu/Cdb.h"

#include <array>

#include "adapters/libtcmu/libtcmu.h"

namespace {

/// Where a group of opcodes has its block address and its transfer length.
struct Group {
    uint8_t cdbLength;
    uint64_t (*lba)(const uint8_t* cdb);
    uint32_t (*blocks)(const uint8_t* cdb);
};

uint64_t NoLba(const uint8_t* /*cdb*/) {
    return 0;
}
uint32_t NoBlocks(const uint8_t* /*cdb*/) {
    return 0;
}
uint64_t Lba6(const uint8_t* cdb) {
    return LoadBe32(cdb) &
           0x1FFFFFU;  // the opcode and the three bits below it aren't the address's
}
uint32_t Blocks6(const uint8_t* cdb) {
    return cdb[4];
}
uint64_t Lba10(const uint8_t* cdb) {
    return LoadBe32(cdb + 2);
}
uint32_t Blocks10(const uint8_t* cdb) {
    return LoadBe16(cdb + 7);
}
uint32_t Blocks12(const uint8_t* cdb) {
    return LoadBe32(cdb + 6);
}
uint64_t Lba16(const uint8_t* cdb) {
    return LoadBe64(cdb + 2);
}
uint32_t Blocks16(const uint8_t* cdb) {
    return LoadBe32(cdb + 10);
}

constexpr std::array<Group, 8> kGroups = {{
    {6, Lba6, Blocks6},     // 0x00
    {10, Lba10, Blocks10},  // 0x20
    {10, Lba10, Blocks10},  // 0x40
    {12, NoLba, NoBlocks},  // 0x60, reserved
    {16, Lba16, Blocks16},  // 0x80
    {12, Lba10, Blocks12},  // 0xA0
    {10, NoLba, NoBlocks},  // 0xC0, the vendor's
    {10, NoLba, NoBlocks},  // 0xE0, the vendor's
}};

const Group& GroupOf(const uint8_t* cdb) {
    return kGroups[cdb[0] >> 5U];
}

constexpr uint8_t kReads[] = {0x08, 0x28, 0xA8, 0x88};
constexpr uint8_t kWrites[] = {0x0A, 0x2A, 0xAA, 0x8A};

template <size_t N>
bool IsOneOf(uint8_t opcode, const uint8_t (&opcodes)[N]) {
    for (const uint8_t one : opcodes) {
        if (one == opcode)
            return true;
    }
    return false;
}

}  // namespace

size_t CdbLength(const uint8_t* cdb) {
    if (cdb[0] == kVariableLengthCdb)
        return size_t{8} + cdb[7];
    return GroupOf(cdb).cdbLength;
}

bool IsRead(uint8_t opcode) {
    return IsOneOf(opcode, kReads);
}

bool IsWrite(uint8_t opcode) {
    return IsOneOf(opcode, kWrites);
}

uint64_t tcmu_get_lba(const uint8_t* cdb) {
    return GroupOf(cdb).lba(cdb);
}

uint32_t tcmu_get_xfer_length(const uint8_t* cdb) {
    return GroupOf(cdb).blocks(cdb);
}
