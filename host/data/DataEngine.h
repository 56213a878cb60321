#pragma once

#include "host/data/Transfers.h"

/// Moves a transfer's bytes between its buffers and one kind of backing.
class DataEngine {
  public:
    virtual ~DataEngine() = default;

    virtual const char* Name() const = 0;

    /// Moves `wanted` bytes and ends the transfer, once, with the bytes moved or -errno; inside the
    /// call or later. One that the engine lets wait is limited (Transfers::LimitWait) and asked for
    /// its refusal before it begins.
    /// Must not block on storage or on another transfer; a copy in memory does not. The device's
    /// thread calls it while it drains the commands that have come, and until the end of its drain
    /// the answers of other threads wait, too.
    /// Thread: any. Requires: the transfer is the engine's until it ended it.
    virtual void Start(Transfer& transfer) = 0;

    /// Ends what hasn't begun and is refused by now: aborted, or too late.
    /// Returns: when the first of those that still wait is too late; max when none waits.
    /// Thread: any but one inside Abort.
    virtual Transfer::Clock::time_point EndRefused() { return Transfer::Clock::time_point::max(); }

    /// `waits` is called when a transfer begins to wait after none did, on the thread of that Start
    /// with no lock of the engine's held. Requires: nothing was started yet.
    virtual void OnWaiting(const std::function<void()>& /*waits*/) {}

    /// Ends the engine's threads. Requires: no transfer is with the engine, and none will come.
    virtual void Stop() {}
};
