#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "adapters/framework/MoStatistics.h"
#include "adapters/libtcmu/libtcmu.h"
#include "adapters/runner/BouncePool.h"
#include "adapters/runner/DataCommand.h"

class DeviceHandler;
struct RingCommand;

/// Stands between a device's ring and its handler, which is exact and trusting: what real
/// initiators send is answered here, or given a form that the handler serves rightly.
///
/// READ and WRITE of 6, 10, 12 and 16 bytes; the first rule that applies decides:
///
///  what comes                     | answered here           | reaches the handler | why
///  -------------------------------|-------------------------|---------------------|------------------
///  LBA above the number of        | ILLEGAL REQUEST         | -                   | nobody else
///  checks blocks, or end beyond it,      | 0x21/0x00               |                     |
///  (SBC-3, 4.5.2); in whatever the length            |                         | | 64 bits, no
///  wrap RDPROTECT or WRPROTECT set     | ILLEGAL REQUEST         | -                   | no
///  protection
///                                 | 0x24/0x00               |                     | information
///                                 here
///  zero blocks (10, 12, 16)       | GOOD                    | -                   | not an error
///  WRITE (6), (12), (16) whose    | ILLEGAL REQUEST         | -                   | a wrong length
///  place or length WRITE (10)     | 0x24/0x00               |                     | would be
///  written can't state                    |                         |                     |
///  buffers shorter than the       | ILLEGAL REQUEST         | -                   | what isn't
///  there transfer                       | 0x24/0x00               |                     | can't be
///  moved host's operations not known:   | NOT READY 0x04/0x01     | TEST UNIT READY of  | the
///  handler would a TEST UNIT READY of the       | unless that is GOOD     | the gate's own      |
///  keep the context gate's own goes first          |                         | | for ever WRITE
///  (6), (12), (16)          | -                       | WRITE (10)          | the length is read
///                                 |                         |                     | from its bytes
///                                 7, 8
///  READ (6), WRITE (6) of zero    | -                       | READ (10),          | zero means 256
///                                 |                         | WRITE (10) of 256   | blocks there
///  buffers longer than the        | -                       | clipped; the rest   | the host fills
///  all transfer                       |                         | of a READ's zeroed  | that it is
///  given more than 16 entries           | -                       | neighbours merged   | more are
///  refused still more than 16             | BUSY while the pool of  | one bounce buffer   | one
///  copy more beats
///                                 | buffers is used up      |                     | a shorter
///                                 transfer
///  ... and longer than the whole  | ILLEGAL REQUEST         | -                   | VPD 0xB0 says
///  less pool                           | 0x24/0x00               |                     | DPO, FUA
///  | -                       | as they are         | every write is durable
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
    Verdict Judge(const DataCommand& data, uint64_t buffers) const;
    Verdict FitBuffers(RingCommand& command, const DataCommand& data, uint64_t buffers);
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
