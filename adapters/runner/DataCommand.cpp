#include "adapters/runner/DataCommand.h"

#include <cstring>
#include <limits>

#include "adapters/libtcmu/libtcmu.h"

namespace {

constexpr uint8_t kRead10 = 0x28;
constexpr uint8_t kWrite10 = 0x2A;
constexpr uint8_t kDpoAndFua = 0x18;
constexpr uint32_t kBlocksForZero = 256;  // READ (6) and WRITE (6)

struct Shape {
    uint8_t opcode;
    bool write;
    uint8_t size;
};

constexpr Shape kShapes[] = {
    {0x08, false, 6}, {0x28, false, 10}, {0xA8, false, 12}, {0x88, false, 16},  // READ
    {0x0A, true, 6},  {0x2A, true, 10},  {0xAA, true, 12},  {0x8A, true, 16},   // WRITE
};

}  // namespace

std::optional<DataCommand> DecodeDataCommand(const uint8_t* cdb) {
    for (const Shape& shape : kShapes) {
        if (shape.opcode != cdb[0])
            continue;
        DataCommand command{};
        command.write = shape.write;
        command.sixBytes = shape.size == 6;
        command.lba = tcmu_get_lba(cdb);
        command.blocks = tcmu_get_xfer_length(cdb);
        command.control = cdb[shape.size - 1];
        if (command.sixBytes) {
            if (command.blocks == 0)
                command.blocks = kBlocksForZero;
        } else {
            command.protect = cdb[1] >> 5;
            command.cacheBits = cdb[1] & kDpoAndFua;
        }
        return command;
    }
    return std::nullopt;
}

void EncodeTenBytes(const DataCommand& command, uint8_t* cdb) {
    memset(cdb, 0, 16);
    cdb[0] = command.write ? kWrite10 : kRead10;
    cdb[1] = static_cast<uint8_t>(command.protect << 5 | command.cacheBits);
    for (int i = 0; i < 4; ++i)
        cdb[2 + i] = static_cast<uint8_t>(command.lba >> (24 - 8 * i));
    cdb[7] = static_cast<uint8_t>(command.blocks >> 8);
    cdb[8] = static_cast<uint8_t>(command.blocks);
    cdb[9] = command.control;
}

bool FitsTenBytes(const DataCommand& command) {
    return command.lba <= std::numeric_limits<uint32_t>::max() &&
           command.blocks <= std::numeric_limits<uint16_t>::max();
}
