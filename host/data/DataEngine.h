#pragma once

#include "host/data/Transfers.h"

/// Moves a transfer's bytes between its buffers and one kind of backing.
class DataEngine {
  public:
    virtual ~DataEngine() = default;

    virtual const char* Name() const = 0;

    /// Moves `wanted` bytes and ends the transfer, once, with the bytes moved or -errno; inside the
    /// call or later.
    /// Must not block on storage or on another transfer; a copy in memory does not. The device's
    /// thread calls it while it drains the commands that have come, and until the end of its drain
    /// the answers of other threads wait, too.
    /// Thread: any. Requires: the transfer is the engine's until it ended it.
    virtual void Start(Transfer& transfer) = 0;

    /// Ends with -ECANCELED what is marked as aborted and hasn't begun.
    /// Thread: any but one inside Abort.
    virtual void CancelAborted() {}

    /// Ends the engine's threads. Requires: no transfer is with the engine, and none will come.
    virtual void Stop() {}
};
