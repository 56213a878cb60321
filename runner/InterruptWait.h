#pragma once

#include <chrono>

#include "framework/UniqueFd.h"

/// Waits for a SIGINT that is sent to the calling thread (pthread_kill), and never takes one that
/// is sent to the process: that one is the host's.
///
/// A signal descriptor and sigwait both take from the process's queue as well, so they only tell
/// that something is there; SigPnd of /proc/thread-self/status, which names what is directed at the
/// thread, decides. A SIGINT for the process that nobody has taken yet is looked at again 20 ms
/// later.
///
/// Thread: the one that made it. Requires: SIGINT is blocked in it.
class InterruptWait {
  public:
    InterruptWait();

    /// Returns: whether the interrupt has come. Once true, always true.
    bool Interrupted();

    /// Waits for the interrupt, at most `limit`. Returns: whether it has come.
    bool WaitFor(std::chrono::milliseconds limit);

    /// Waits for the interrupt without limit.
    void Wait();

  private:
    void WaitForSomeSignal(std::chrono::milliseconds limit);

    UniqueFd m_signals;  // becomes readable for either kind; never read
    bool m_interrupted = false;
};
