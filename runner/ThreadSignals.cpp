#include "runner/ThreadSignals.h"

#include <initializer_list>

ThreadSignals::ThreadSignals() : m_previous() {
    sigset_t blocked;
    sigfillset(&blocked);
    for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS})
        sigdelset(&blocked, fault);
    pthread_sigmask(SIG_BLOCK, &blocked, &m_previous);
}

ThreadSignals::~ThreadSignals() {
    pthread_sigmask(SIG_SETMASK, &m_previous, nullptr);
}
