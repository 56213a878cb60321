#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "framework/MoStatistics.h"
#include "libtcmu/libtcmu.h"
#include "runner/BouncePool.h"
#include "runner/DataCommand.h"

class DeviceHandler;
struct RingCommand;

/// Stands between a device's ring and its handler, which is exact and trusting: what real
/// initiators send is answered here, or given a form that the handler serves rightly.
///
/// READ and WRITE of 6, 10, 12 and 16 bytes; the first rule that applies decides:
///
///  what comes                                | becomes                      | because
///  ------------------------------------------|------------------------------|--------------------
///  LBA or end above the number of blocks,    | ILLEGAL REQUEST 0x21/0x00    | nobody else checks
///  whatever the length (SBC-3, 4.5.2)        |                              |
///  RDPROTECT or WRPROTECT set                | ILLEGAL REQUEST 0x24/0x00    | there is none here
///  zero blocks (10, 12, 16)                  | GOOD                         | that is no error
///  WRITE whose place or length WRITE (10)    | ILLEGAL REQUEST 0x24/0x00    | the length would be
///  can't state                               |                              | wrong
///  buffers shorter than the transfer         | ILLEGAL REQUEST 0x24/0x00    | not all can be moved
///  host's operations not known, and our own  | NOT READY 0x04/0x01          | the handler would
///  TEST UNIT READY isn't GOOD                |                              | keep the context
///  WRITE (6), (12), (16)                     | WRITE (10)                   | bytes 7 and 8 are
///                                            |                              | taken for the length
///  READ (6), WRITE (6) of zero               | READ (10), WRITE (10) of 256 | zero means 256 there
///  buffers longer than the transfer          | clipped buffers; the rest of | the host fills all
///                                            | a READ's is zeroed           | that it is given
///  more than 16 entries                      | neighbours merged            | more are refused
///  still more than 16                        | one bounce buffer; BUSY      | a copy beats a
///                                            | while the pool is used up    | shorter transfer
///  no memory for what the above needs        | BUSY                         | it may come back
///  ... and longer than the whole pool        | ILLEGAL REQUEST 0x24/0x00    | VPD 0xB0 says less
///  DPO, FUA                                  | the same                     | writes are durable
///
/// SYNCHRONIZE CACHE (10) and (16), which some initiators send whatever the caching page says: NOT
/// READY 0x04/0x01 while the host's operations aren't known; ILLEGAL REQUEST 0x21/0x00 for blocks
/// beyond the end (zero blocks reach to the end; SBC-3, 5.22); otherwise GOOD at once, IMMED or
/// not: what was answered before is durable already.
///
/// Every other command reaches the handler as it is; what it doesn't know (-1) becomes ILLEGAL
/// REQUEST 0x20/0x00. A GOOD answer states its true length to the kernel, and what it left of the
/// buffers is zeroed: the data area holds what earlier commands left there.
///
/// Limits that follow, logged when a device is opened: blocks from 2^32 on can be read and not
/// written; one transfer has at most 65,535 blocks if it is a WRITE.
///
/// A used-up pool is answered, not waited for: the device's only thread would wait for the host.
///
/// Thread: Pass on the device's; Completing on any; Counters on any.
class CommandGate {
  public:
    /// What the handler takes: the I/O context manager's limit.
    static constexpr size_t kMaxEntries = 16;

    /// Requires: the handler is open, so that the device has its block size and number of blocks.
    CommandGate(tcmu_device& device, DeviceHandler& handler);

    CommandGate(const CommandGate&) = delete;
    CommandGate& operator=(const CommandGate&) = delete;

    /// Answers a fetched command, or passes it to the handler. The record isn't touched any more
    /// when this returns.
    void Pass(RingCommand& command);

    /// The device's completion hook: copies a bounced READ back, gives the buffer back.
    void Completing(RingCommand& command, int& result);

    MoStatistics::Counters Counters();

    /// What became of a command; the order is that of the counters.
    enum class Verdict {
        kPassed,
        kZeroBlocks,
        kSynchronized,
        kOutOfRange,
        kProtection,
        kDoesNotFit,
        kShortBuffers,
        kTooLong,
        kNotReady,
        kBusy,
        kCount
    };

  private:
    // Kept by the kernel's number of the command. The kernel gives a number to another command only
    // after this one's completion.
    struct Reshaped {
        std::array<uint8_t, 16> cdb;
        iovec flat;      // the bounce buffer, as the only entry that the handler sees
        iovec* entries;  // the command's own
        size_t entryCount;
        bool write;
    };

    void PassData(RingCommand& command, const DataCommand& data);
    void PassOther(RingCommand& command);
    Verdict JudgeSynchronize(const uint8_t* cdb);
    bool Within(uint64_t lba, uint64_t blocks) const;
    Verdict Judge(const DataCommand& data, uint64_t buffers) const;
    Verdict Prepare(RingCommand& command, const DataCommand& data);
    Verdict FitBuffers(RingCommand& command, const DataCommand& data);
    Verdict Bounce(RingCommand& command, const DataCommand& data, uint64_t bytes);
    bool HostKnown();
    void Answer(RingCommand& command, Verdict verdict);
    void HandToHandler(RingCommand& command);
    Reshaped& ReshapedOf(const RingCommand& command);
    static void Count(std::atomic<uint64_t>& counter) {
        counter.fetch_add(1, std::memory_order_relaxed);
    }

    // Constant after construction.
    tcmu_device& m_device;
    DeviceHandler& m_handler;
    const uint64_t m_blockSize;
    const uint64_t m_numLbas;

    // The device's thread's own.
    bool m_hostKnown = false;
    std::chrono::steady_clock::time_point m_askAgain;  // not before, while the host isn't known
    std::vector<std::unique_ptr<Reshaped>> m_reshaped;

    BouncePool m_pool;

    // Raised by the device's thread, read by any.
    std::array<std::atomic<uint64_t>, static_cast<size_t>(Verdict::kCount)> m_verdicts{};
    std::atomic<uint64_t> m_rewritten{0};
    std::atomic<uint64_t> m_clipped{0};
    std::atomic<uint64_t> m_manyEntries{0};
    std::atomic<uint64_t> m_merged{0};
    std::atomic<uint64_t> m_bounced{0};
    std::atomic<uint64_t> m_ownTestUnitReady{0};
};
