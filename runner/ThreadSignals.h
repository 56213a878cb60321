#pragma once

#include <csignal>

/// Keeps every signal that is sent to the process away from a thread and from the threads that it
/// makes meanwhile (the mask is inherited): those are the host's. What a fault of the thread's own
/// raises still comes.
class ThreadSignals {
  public:
    ThreadSignals();
    ~ThreadSignals();

    ThreadSignals(const ThreadSignals&) = delete;
    ThreadSignals& operator=(const ThreadSignals&) = delete;

  private:
    sigset_t m_previous;
};
