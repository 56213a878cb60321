#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <future>
#include <thread>

#include "framework/UniqueFd.h"

/// A thread that sleeps in poll and can be told to end: one descriptor of its own becomes readable.
///
/// Thread: Start, End and EndBy on one at a time. Destroying it ends the thread.
class ServiceThread {
  public:
    using Clock = std::chrono::steady_clock;

    ServiceThread() = default;
    ~ServiceThread();

    ServiceThread(const ServiceThread&) = delete;
    ServiceThread& operator=(const ServiceThread&) = delete;

    /// Runs `body` on a new thread of this name (15 characters at most), once. An exception ends
    /// the thread, with a line.
    /// Errors: std::system_error when there is no thread or no descriptor.
    void Start(const char* name, std::function<void()> body);

    /// For `body`: readable once the thread is to end, and the same as a flag.
    int EndFd() const { return m_end.Get(); }
    bool Ending() const { return m_ending.load(std::memory_order_relaxed); }

    /// Tells the thread to end and waits for it. Harmless when there is none.
    void End();

    /// The same, but waits until `deadline` only. Returns: whether the thread has ended.
    bool EndBy(Clock::time_point deadline);

  private:
    void TellToEnd();

    UniqueFd m_end;
    std::atomic<bool> m_ending{false};
    std::promise<void> m_done;  // kept when the body has returned
    std::future<void> m_whenDone = m_done.get_future();
    std::thread m_thread;
};
