#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

/// The SCSI commands of a user LUN, said once: ring, gate, emulation and handler know a command by
/// what stands here. Every other opcode is answered as an invalid one.

/// Operation codes (SPC-4, 6.1; SBC-3, 5.1).
namespace Opcode {

inline constexpr uint8_t kTestUnitReady = 0x00;
inline constexpr uint8_t kRead6 = 0x08;
inline constexpr uint8_t kWrite6 = 0x0A;
inline constexpr uint8_t kInquiry = 0x12;
inline constexpr uint8_t kModeSelect6 = 0x15;
inline constexpr uint8_t kModeSense6 = 0x1A;
inline constexpr uint8_t kStartStopUnit = 0x1B;
inline constexpr uint8_t kReadCapacity10 = 0x25;
inline constexpr uint8_t kRead10 = 0x28;
inline constexpr uint8_t kWrite10 = 0x2A;
inline constexpr uint8_t kSynchronizeCache10 = 0x35;
inline constexpr uint8_t kModeSelect10 = 0x55;
inline constexpr uint8_t kModeSense10 = 0x5A;
inline constexpr uint8_t kRead16 = 0x88;
inline constexpr uint8_t kWrite16 = 0x8A;
inline constexpr uint8_t kSynchronizeCache16 = 0x91;
inline constexpr uint8_t kServiceActionIn16 = 0x9E;  ///< READ CAPACITY (16)
inline constexpr uint8_t kRead12 = 0xA8;
inline constexpr uint8_t kWrite12 = 0xAA;

}  // namespace Opcode

/// What a command is, whatever the size of its CDB, and by it who answers.
enum class CommandKind : uint8_t {
    kUnknown,  ///< nobody

    // The handler asks for the host's operations, then the emulation answers.
    kTestUnitReady,
    kInquiry,

    // The emulation.
    kModeSelect,
    kModeSense,
    kStartStopUnit,
    kReadCapacity10,
    kServiceActionIn16,

    // The gate, by the blocks that the CDB names. The handler doesn't know it.
    kSynchronizeCache,

    // The host, with the blocks that the CDB names: the gate checks them, nobody else does.
    kRead,
    kWrite,
};

/// A big-endian number in a CDB: the low `bits` of the bytes that they need, from `offset` on.
/// Without bits it is always 0.
struct CdbField {
    uint8_t offset = 0;
    uint8_t bits = 0;
};

/// A CDB's length in bytes, and where block commands of that length have their logical block
/// address and their transfer length (SBC-3, 5).
struct CdbForm {
    uint8_t length;
    CdbField lba;
    CdbField blocks;
};

namespace opcodes {

struct Command {
    uint8_t opcode;
    CommandKind kind;
};

inline constexpr std::array<Command, 19> kCommands = {{
    {Opcode::kTestUnitReady, CommandKind::kTestUnitReady},
    {Opcode::kRead6, CommandKind::kRead},
    {Opcode::kWrite6, CommandKind::kWrite},
    {Opcode::kInquiry, CommandKind::kInquiry},
    {Opcode::kModeSelect6, CommandKind::kModeSelect},
    {Opcode::kModeSense6, CommandKind::kModeSense},
    {Opcode::kStartStopUnit, CommandKind::kStartStopUnit},
    {Opcode::kReadCapacity10, CommandKind::kReadCapacity10},
    {Opcode::kRead10, CommandKind::kRead},
    {Opcode::kWrite10, CommandKind::kWrite},
    {Opcode::kSynchronizeCache10, CommandKind::kSynchronizeCache},
    {Opcode::kModeSelect10, CommandKind::kModeSelect},
    {Opcode::kModeSense10, CommandKind::kModeSense},
    {Opcode::kRead16, CommandKind::kRead},
    {Opcode::kWrite16, CommandKind::kWrite},
    {Opcode::kSynchronizeCache16, CommandKind::kSynchronizeCache},
    {Opcode::kServiceActionIn16, CommandKind::kServiceActionIn16},
    {Opcode::kRead12, CommandKind::kRead},
    {Opcode::kWrite12, CommandKind::kWrite},
}};

/// By the group code, the opcode's upper three bits (SPC-4, 4.2.5.1).
inline constexpr std::array<CdbForm, 8> kForms = {{
    {6, {1, 21}, {4, 8}},     // 0x00; the three bits above the address aren't its own
    {10, {2, 32}, {7, 16}},   // 0x20
    {10, {2, 32}, {7, 16}},   // 0x40
    {12, {}, {}},             // 0x60, reserved
    {16, {2, 64}, {10, 32}},  // 0x80
    {12, {2, 32}, {6, 32}},   // 0xA0
    {10, {}, {}},             // 0xC0, the vendor's
    {10, {}, {}},             // 0xE0, the vendor's
}};

inline constexpr std::array<CommandKind, 256> kKinds = [] {
    std::array<CommandKind, 256> kinds{};
    for (const Command& command : kCommands)
        kinds[command.opcode] = command.kind;
    return kinds;
}();

}  // namespace opcodes

constexpr CommandKind KindOf(uint8_t opcode) {
    return opcodes::kKinds[opcode];
}

/// Whether it moves blocks between the initiator and the host, so that the gate checks them and
/// their buffers. Every kind stands here, so that a new one doesn't compile until that is said of
/// it.
constexpr bool IsTransfer(CommandKind kind) {
    switch (kind) {
        case CommandKind::kRead:
        case CommandKind::kWrite:
            return true;
        case CommandKind::kUnknown:
        case CommandKind::kTestUnitReady:
        case CommandKind::kInquiry:
        case CommandKind::kModeSelect:
        case CommandKind::kModeSense:
        case CommandKind::kStartStopUnit:
        case CommandKind::kReadCapacity10:
        case CommandKind::kServiceActionIn16:
        case CommandKind::kSynchronizeCache:
            break;
    }
    return false;
}

/// Of any opcode, ours or not.
constexpr const CdbForm& FormOf(uint8_t opcode) {
    return opcodes::kForms[opcode >> 5U];
}

static_assert(
    [] {
        size_t named = 0;
        for (const CommandKind kind : opcodes::kKinds)
            named += kind == CommandKind::kUnknown ? 0 : 1;
        return named == opcodes::kCommands.size();
    }(),
    "each opcode stands in the table once");
static_assert(
    [] {
        for (const opcodes::Command& command : opcodes::kCommands) {
            const CdbForm& form = FormOf(command.opcode);
            if (IsTransfer(command.kind) && (form.lba.bits == 0 || form.blocks.bits == 0))
                return false;
        }
        return true;
    }(),
    "the gate can check the blocks of each transfer");
