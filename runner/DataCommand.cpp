#include "runner/DataCommand.h"

#include <cstring>

#include "libtcmu/Cdb.h"
#include "libtcmu/libtcmu.h"

namespace {

constexpr uint8_t kDpoAndFua = 0x18;
constexpr uint32_t kBlocksForZero = 256;  // READ (6) and WRITE (6)

constexpr CdbForm kSixBytes = FormOf(Opcode::kRead6);
constexpr CdbForm kTenBytes = FormOf(Opcode::kRead10);

}  // namespace

std::optional<DataCommand> DecodeDataCommand(const uint8_t* cdb) {
    const CommandKind kind = KindOf(cdb[0]);
    if (!IsTransfer(kind))
        return std::nullopt;
    const size_t length = FormOf(cdb[0]).length;
    DataCommand command{};
    command.write = kind == CommandKind::kWrite;
    command.sixBytes = length == kSixBytes.length;
    command.lba = tcmu_get_lba(cdb);
    command.blocks = tcmu_get_xfer_length(cdb);
    command.control = cdb[length - 1];
    if (command.sixBytes) {
        if (command.blocks == 0)
            command.blocks = kBlocksForZero;
    } else {
        command.protect = cdb[1] >> 5;
        command.cacheBits = cdb[1] & kDpoAndFua;
    }
    return command;
}

void EncodeTenBytes(const DataCommand& command, uint8_t* cdb) {
    memset(cdb, 0, 16);
    cdb[0] = command.write ? Opcode::kWrite10 : Opcode::kRead10;
    cdb[1] = static_cast<uint8_t>(command.protect << 5 | command.cacheBits);
    StoreField(cdb, kTenBytes.lba, command.lba);
    StoreField(cdb, kTenBytes.blocks, command.blocks);
    cdb[kTenBytes.length - 1] = command.control;
}

bool FitsTenBytes(const DataCommand& command) {
    return FitsField(kTenBytes.lba, command.lba) && FitsField(kTenBytes.blocks, command.blocks);
}
