#include "tools/targetcli/Interrupts.h"

#include <sys/signalfd.h>

#include <csignal>
#include <initializer_list>

Interrupts::Interrupts() {
    sigset_t blocked;
    sigprocmask(SIG_SETMASK, nullptr, &blocked);
    sigset_t taken;
    sigemptyset(&taken);
    for (const int number : {SIGINT, SIGTERM, SIGHUP}) {
        struct sigaction action = {};
        sigaction(number, nullptr, &action);
        if (sigismember(&blocked, number) == 0 && action.sa_handler != SIG_IGN)
            sigaddset(&taken, number);
    }
    sigprocmask(SIG_BLOCK, &taken, nullptr);
    m_signals = UniqueFd(signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK));
}

int Interrupts::Take() const {
    signalfd_siginfo info = {};
    return read(m_signals.Get(), &info, sizeof info) == sizeof info
               ? static_cast<int>(info.ssi_signo)
               : 0;
}
