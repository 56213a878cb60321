#pragma once

#include <sys/uio.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/FailureLog.h"
#include "host/data/LunStatistics.h"
#include "host/data/WriteOrder.h"
#include "platform/MoScsiSrvPlatform.h"

/// Names one transfer for ever: a place in the table and how often the place was used before. A
/// ticket that is kept after the transfer's end fits nothing any more.
using Ticket = uint64_t;

/// One transfer on loan. The holder of the transfer (fault plan, waiting room, engine: one after
/// the other) works on it alone and may not touch it after Transfers::Finish.
struct Transfer {
    Ticket ticket = 0;
    bool write = false;
    uint64_t offset = 0;     ///< first byte in the backing
    uint64_t wanted = 0;     ///< bytes to move: within the backing, the buffers and the faults
    std::vector<iovec> iov;  ///< own copy of the buffer list, exactly `wanted` bytes

    bool ownSync = false;       ///< FileEngine's: the write carries its own sync
    bool mayBlock = false;      ///< FileEngine's: its request is the second, after -EAGAIN
    uint64_t syncFailures = 0;  ///< FileEngine's: how many there had been when it began
    uint64_t done = 0;          ///< bytes moved so far; Advance moves it
    size_t firstBuffer = 0;     ///< buffers before it are done
    int64_t result = 0;         ///< FileEngine's: what it will report
    int failure = 0;            ///< the engine's: errno, why it will report less than wanted
    Transfer* next = nullptr;   ///< TransferList's

    std::atomic<bool> aborted{false};
    WriteOrder::Place order;  ///< a write's: says whether it may begin yet

    using Clock = std::chrono::steady_clock;
    /// It may not begin from then on; set when it waits (Transfers::LimitWait), else max.
    Clock::time_point beginBefore;

    /// To be asked at once before it begins. Returns: 0, or the -errno with which it ends instead.
    int64_t Refusal() const;

    /// Notes that `bytes` more were moved, at most what was missing, and cuts the list to the rest.
    void Advance(uint64_t bytes);

    // The table's, under its mutex.
    MoScsiSrvIO* ioctx = nullptr;  ///< null: the place is free
    uint64_t asked = 0;            ///< the record's length
};

/// The contexts that the host holds, and the one way back to the plug-in. Counts what passes.
///
/// Thread: any.
class Transfers {
  public:
    /// `place`: where the data is, for people.
    Transfers(std::string name, const std::string& place, MoScsiSrvPlatform& platform)
        : m_name(std::move(name)), m_platform(platform), m_failures(m_name, place) {}

    /// Takes a context on loan. `wanted` becomes what `backingSize` and the buffers allow, and
    /// `limit` at most. A write takes its place in the order. No heap once warm.
    /// Returns: the transfer, or null when the context went back: after Shut with -ESHUTDOWN,
    /// without memory with -ENOMEM.
    Transfer* Open(MoScsiSrvIO* ioctx, bool write, uint64_t backingSize, uint64_t limit)
        MO_EXCLUDES(m_mutex);

    /// Returns: the transfer, or null when it has ended.
    Transfer* Find(Ticket ticket) MO_EXCLUDES(m_mutex);

    /// Ends a transfer: IODone with the bytes moved or -errno. A failure is counted, and logged now
    /// and then. One that has ended already is counted, logged and left alone. Nothing of this
    /// object is touched after IODone.
    void Finish(Ticket ticket, int64_t result) MO_EXCLUDES(m_mutex);

    /// How long the kernel waits for a command before it answers itself; zero, and before the first
    /// call: for ever.
    void SetCommandTimeOut(std::chrono::milliseconds timeOut);

    /// Limits the wait of a transfer that doesn't begin in the call in which it came: what the
    /// kernel has answered by time-out must not begin any more. A tenth of the kernel's time is
    /// left for the way from the kernel to here, and from the last look at the clock to the begin.
    void LimitWait(Transfer& transfer) const;

    /// `look` is called when a write that waited may begin; it must not call this object, whose
    /// mutex is held. Requires: no transfer was opened yet.
    void OnFreed(std::function<void()> look) { m_freed = std::move(look); }

    /// Marks the transfer of a context. Returns: false when the context isn't on loan.
    bool MarkAborted(MoScsiSrvIO* ioctx) MO_EXCLUDES(m_mutex);

    /// Marks all, and lets none in any more.
    void Shut() MO_EXCLUDES(m_mutex);
    /// Waits until no context is on loan. Requires: Shut.
    void WaitUntilEmpty() MO_EXCLUDES(m_mutex);

    void CountFault() MO_EXCLUDES(m_mutex);

    /// Everything but backing and engine.
    LunStatistics Counters() const MO_EXCLUDES(m_mutex);

  private:
    void LogFailureLocked(bool write, int number) MO_REQUIRES(m_mutex);
    /// Null when there is no memory for one more.
    Transfer* TakeFreeLocked() MO_REQUIRES(m_mutex);
    /// The way back, with no lock held: IODone takes the device's, under which Abort comes to us.
    static void GiveBack(MoScsiSrvPlatform& platform, MoScsiSrvIO* ioctx, int64_t result);
    Transfer* FindLocked(Ticket ticket) MO_REQUIRES(m_mutex);

    const std::string m_name;
    MoScsiSrvPlatform& m_platform;
    std::function<void()> m_freed;
    std::atomic<Transfer::Clock::duration> m_waitLimit{Transfer::Clock::duration::max()};

    mutable Mutex m_mutex;
    std::condition_variable_any m_returned;
    std::deque<Transfer> m_places MO_GUARDED_BY(m_mutex);  ///< a deque: places never move
    std::vector<size_t> m_free MO_GUARDED_BY(m_mutex);
    LunStatistics m_counters MO_GUARDED_BY(m_mutex);
    FailureLog m_failures MO_GUARDED_BY(m_mutex);
    WriteOrder m_order MO_GUARDED_BY(m_mutex);
    bool m_shut MO_GUARDED_BY(m_mutex) = false;
};
