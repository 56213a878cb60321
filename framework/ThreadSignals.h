#pragma once

#include <csignal>
#include <initializer_list>

/// Keeps every signal that is sent to the process away from a thread and from the threads that it
/// makes meanwhile (the mask is inherited): those are the host's. What a fault of the thread's own
/// raises still comes.
class ThreadSignals {
  public:
    ThreadSignals() : m_previous() {
        sigset_t blocked;
        sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
            sigdelset(&blocked, fault);
        pthread_sigmask(SIG_BLOCK, &blocked, &m_previous);
    }
    ~ThreadSignals() { pthread_sigmask(SIG_SETMASK, &m_previous, nullptr); }

    ThreadSignals(const ThreadSignals&) = delete;
    ThreadSignals& operator=(const ThreadSignals&) = delete;

  private:
    sigset_t m_previous;
};
