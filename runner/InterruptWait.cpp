#include "runner/InterruptWait.h"

#include <poll.h>
#include <sys/signalfd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <string_view>

#include "framework/SmallFile.h"

namespace {

constexpr std::chrono::milliseconds kLookAgain(20);

sigset_t InterruptSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    return set;
}

// Whether SIGINT is pending for this thread, as distinct from its process.
bool DirectedInterruptPending() {
    constexpr std::string_view kField = "\nSigPnd:";
    const std::string text = ReadSmallFile("/proc/thread-self/status").value_or("");
    const size_t field = text.find(kField);
    if (field == std::string::npos)
        return false;
    const unsigned long long pending = strtoull(text.c_str() + field + kField.size(), nullptr, 16);
    return (pending >> (SIGINT - 1) & 1) != 0;
}

}  // namespace

InterruptWait::InterruptWait() {
    const sigset_t set = InterruptSet();
    m_signals = UniqueFd(signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK));
}

bool InterruptWait::Interrupted() {
    if (m_interrupted || !DirectedInterruptPending())
        return m_interrupted;
    // The thread's own queue is looked at before the process's, so this takes the directed one.
    const sigset_t set = InterruptSet();
    const timespec now{0, 0};
    m_interrupted = sigtimedwait(&set, nullptr, &now) == SIGINT;
    return m_interrupted;
}

bool InterruptWait::WaitFor(std::chrono::milliseconds limit) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!Interrupted()) {
        const auto left =
            std::chrono::ceil<std::chrono::milliseconds>(end - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return false;
        WaitForSomeSignal(left);
    }
    return true;
}

void InterruptWait::Wait() {
    while (!WaitFor(std::chrono::hours(1))) {
    }
}

// Without a signal descriptor the thread looks again every 20 ms.
void InterruptWait::WaitForSomeSignal(std::chrono::milliseconds limit) {
    const auto pause = static_cast<int>(std::min(limit, kLookAgain).count());
    const int patience = m_signals.Valid() ? static_cast<int>(limit.count()) : pause;
    pollfd signals{m_signals.Get(), POLLIN, 0};
    if (poll(&signals, 1, patience) > 0 && !Interrupted())
        poll(nullptr, 0, pause);  // it is the process's: leave it to the host
}
