#include "adapters/targetcli/Interrupts.h"

#include <sys/signalfd.h>
#include <unistd.h>

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
    m_fd = signalfd(-1, &taken, SFD_CLOEXEC | SFD_NONBLOCK);
}

Interrupts::~Interrupts() {
    if (m_fd >= 0)
        close(m_fd);
}

int Interrupts::Take() const {
    signalfd_siginfo info = {};
    return read(m_fd, &info, sizeof info) == sizeof info ? static_cast<int>(info.ssi_signo) : 0;
}
