#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "framework/Mutex.h"
#include "libtcmu/Doorbell.h"
#include "libtcmu/RingLayout.h"
#include "libtcmu/libtcmu.h"

/// One command, copied out of the ring when fetched: the kernel's slot may be overwritten by any
/// other command's completion. Records belong to the ring, one for each number that the kernel has
/// used, and are used again.
///
/// Whoever serves the command may point `cdb`, `iovec` and `iov_cnt` elsewhere; the ring sets them
/// anew at each fetch.
struct alignas(64) RingCommand : tcmulib_cmd {
    static constexpr size_t kMaxCdb = 260;        ///< SPC-4, 4.2.3: the variable-length CDB
    static constexpr size_t kInlineEntries = 16;  ///< 64 KiB in single pages

    /// The answer's true length in bytes, for a GOOD status of a command that returns data; the
    /// kernel then tells the initiator the residual. Empty: all that was asked for.
    std::optional<uint32_t> readLength;

    /// Bytes in all entries as fetched; an emulation that consumes `iovec` leaves it.
    size_t dataLength;

    /// Bytes of READ data, which the kernel copies inside the doorbell. 0 for any other command.
    size_t readBytes;

  private:
    friend class CommandRing;
    RingCommand() = default;

    std::atomic<bool> m_inFlight{false};  // fetched and not yet completed
    std::array<uint8_t, kMaxCdb> m_cdb;
    std::array<::iovec, kInlineEntries> m_inlineEntries;
    std::vector<::iovec> m_manyEntries;  // keeps its capacity
};

/// Walks one device's command ring in the memory shared with the kernel (Linux kernel,
/// Documentation/target/tcmu-design.rst; linux/target_core_user.h).
///
/// The kernel writes entries and moves `cmd_head`; we write answers at `cmd_tail`, in any order:
/// the kernel takes the command's number from the slot at the tail. Nothing in the memory is
/// trusted: offsets and lengths that leave the mapping are answered with an error, never followed,
/// and a ring that can't be walked any more is left alone (Broken).
///
/// Thread: Fetch, BeginDrain and EndDrain on the device's thread; the rest on any. The memory
/// outlives the object; destroy it when nothing is in flight and no call is running.
// What different threads write stands on cache lines of its own.
class CommandRing {  // NOLINT(clang-analyzer-optin.performance.Padding)
  public:
    /// `memory` begins with the mailbox; `uioFd` takes the doorbell.
    CommandRing(void* memory, size_t length, int uioFd);
    ~CommandRing();

    CommandRing(const CommandRing&) = delete;
    CommandRing& operator=(const CommandRing&) = delete;

    /// Copies the next command out of the ring. One for which there is no memory is answered BUSY
    /// here, and the next one looked at.
    /// Returns: the command, to be given to Complete once; null when the ring is drained or broken.
    /// Thread: the device's.
    RingCommand* Fetch() MO_EXCLUDES(m_completionMutex);

    /// Answers a command: 0, TCMU_STATUS_CHECK_CONDITION with the record's sense, another SAM-5
    /// status, or -1 (ILLEGAL REQUEST, invalid command operation code). Any other negative result
    /// becomes HARDWARE ERROR, internal target failure. The record must not be touched afterwards.
    /// The kernel looks at the answer after the next doorbell.
    /// Thread: any.
    void Complete(RingCommand& command, int result) MO_EXCLUDES(m_completionMutex);

    /// Tells the kernel about the answers given so far, or leaves it to the thread that will; see
    /// Doorbell.
    /// Thread: any.
    void RingDoorbell();

    /// From here to EndDrain answers are told to the kernel together. Thread: the device's.
    void BeginDrain() MO_EXCLUDES(m_completionMutex);
    void EndDrain();

    /// Commands fetched and not yet completed. Thread: any.
    uint32_t InFlight() const { return m_inFlight.load(std::memory_order_acquire); }

    /// True when every entry of the kernel's has been answered. Thread: any.
    bool Empty() const;

    /// Why the ring can't be walked any more, or null. Fetch then returns nothing and Complete only
    /// takes records back. Thread: any.
    const char* Broken() const { return m_broken.load(std::memory_order_acquire); }

    /// Counters, each raised by one, atomically.
    struct Stats {
        std::atomic<uint64_t> fetched{0};
        std::atomic<uint64_t> completed{0};
        std::atomic<uint64_t> doorbells{0};
        std::atomic<uint64_t> doorbellErrors{0};  ///< of these; all once the device is removed
        std::atomic<uint64_t> badEntries{0};  ///< answered here: buffers or CDB out of the mapping
        std::atomic<uint64_t> withoutMemory{0};   ///< answered here: BUSY
        std::atomic<uint64_t> otherEntries{0};    ///< skipped: padding, notices, unknown operations
        std::atomic<uint64_t> completedTwice{0};  ///< ignored
    };
    const Stats& GetStats() const { return m_stats; }

    // ---- For tests only
    /// True when the kernel takes the length of an answer (RingCommand::readLength).
    bool TakesReadLength() const { return m_takesReadLength; }

  private:
    const char* CheckMailbox() const;
    void SetBroken(const char* why);
    uint32_t LoadHead() const;
    bool ReadHeader(uint32_t offset, ringlayout::Header& header) const;
    void PassOther(uint32_t offset, const ringlayout::Header& header)
        MO_EXCLUDES(m_completionMutex);
    enum class Copied { kAll, kOutOfMapping, kWithoutMemory };
    RingCommand* TakeRecord(uint16_t number);
    static void PrepareRecord(RingCommand& command);
    Copied CopyOut(uint32_t offset, uint32_t length, RingCommand& command) const;
    void AnswerHere(RingCommand& command, Copied copied) MO_EXCLUDES(m_completionMutex);
    bool CopyCdb(uint64_t offset, RingCommand& command) const;
    std::optional<uint32_t> WriteAnswerLocked(const RingCommand& command, int result)
        MO_REQUIRES(m_completionMutex);
    bool TailIsOursLocked() MO_REQUIRES(m_completionMutex);
    void StoreTailLocked(uint32_t tail) MO_REQUIRES(m_completionMutex);
    void SkipOthersLocked() MO_REQUIRES(m_completionMutex);

    // Constant after construction.
    uint8_t* const m_memory;
    const size_t m_length;
    ringlayout::Mailbox* m_mailbox = nullptr;
    uint8_t* m_ring = nullptr;
    uint32_t m_ringSize = 0;
    bool m_takesReadLength = false;

    // The device's thread's own.
    std::vector<std::unique_ptr<RingCommand>> m_records;    // by the kernel's number
    std::unique_ptr<RingCommand> m_spare{new RingCommand};  // never in flight when Fetch returns

    // Written by the device's thread, read by completions: the entry to be fetched next.
    alignas(64) std::atomic<uint32_t> m_seen{0};

    // Completions, one at a time.
    alignas(64) Mutex m_completionMutex;
    uint32_t m_tail MO_GUARDED_BY(m_completionMutex) = 0;  // what we last wrote into the mailbox

    // Atomic.
    std::atomic<uint32_t> m_inFlight{0};
    std::atomic<const char*> m_broken{nullptr};
    alignas(64) Stats m_stats;
    Doorbell m_doorbell;
};
