#pragma once

#include "runner/ServiceThread.h"

class LibtcmuApi;

/// Serves libtcmu's netlink descriptor: devices come and go on this thread. It runs no command and
/// waits for nothing that waits for targetcli: the kernel makes targetcli wait for this thread. It
/// may wait for the host, in `removed`, for as long as the host holds what points into the device's
/// ring.
///
/// Thread: one.
class MasterThread {
  public:
    explicit MasterThread(LibtcmuApi& tcmu) : m_tcmu(tcmu) {}

    /// Gives the descriptor a large receive buffer and starts. An event that doesn't fit would be
    /// lost, and the kernel would wait for its answer for ever.
    /// Requires: the context is open. Errors: std::system_error without a thread.
    void Start();

    /// Returns: whether the thread has ended by then. If not, it waits for the host; then context
    /// and object must stay.
    bool EndBy(ServiceThread::Clock::time_point deadline) { return m_thread.EndBy(deadline); }

  private:
    void Serve(int masterFd);

    LibtcmuApi& m_tcmu;
    ServiceThread m_thread;
};
