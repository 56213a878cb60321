#pragma once

#include <cstddef>
#include <cstdint>

/// The memory that the kernel shares with the server of a TCMU device, version 2 (Linux kernel,
/// Documentation/target/tcmu-design.rst and linux/target_core_user.h, which doesn't compile as
/// C++): a mailbox, the command ring, and the data area. Offsets count from the mailbox.
namespace ringlayout {

inline constexpr uint16_t kVersion = 2;
inline constexpr uint16_t kFlagReadLength = 1U << 1U;  ///< the kernel takes Response::readLength

struct Mailbox {  // NOLINT(clang-analyzer-optin.performance.Padding)
    uint16_t version;
    uint16_t flags;
    uint32_t ringOffset;
    uint32_t ringSize;
    uint32_t head;              ///< the kernel's; counts from ringOffset, below ringSize
    alignas(64) uint32_t tail;  ///< ours
};
static_assert(offsetof(Mailbox, head) == 12 && offsetof(Mailbox, tail) == 64);

enum Operation : uint32_t { kPad = 0, kCommand = 1, kTaskManagement = 2 };
inline constexpr uint32_t kOperationMask = 0x7;  ///< the rest is the entry's length, times 8

inline constexpr uint8_t kUserUnknownOperation = 0x1;
inline constexpr uint8_t kUserReadLength = 0x2;

struct Header {
    uint32_t lengthAndOperation;
    uint16_t number;
    uint8_t kernelFlags;
    uint8_t userFlags;
};
static_assert(sizeof(Header) == 8);

/// A command; buffer entries (iovec, with offsets for addresses) follow at once.
struct Request {
    Header header;
    uint32_t entries;      ///< data buffers
    uint32_t bidiEntries;  ///< behind them
    uint32_t difEntries;   ///< behind those
    uint32_t reserved1;    ///< the kernel packs the entry, but not the request within it
    uint64_t cdbOffset;
    uint64_t reserved2[2];
};
static_assert(sizeof(Request) == 48 && offsetof(Request, cdbOffset) == 24);

/// An answer, written over the entry at the tail.
struct Response {
    Header header;
    uint8_t status;
    uint8_t reserved[3];
    uint32_t readLength;
    uint8_t sense[96];
};
static_assert(sizeof(Response) == 112 && offsetof(Response, readLength) == 12);

}  // namespace ringlayout
