#include "host/service/StopSignals.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <fstream>

#include "framework/ExceptionOf.h"

namespace {

using std::chrono::seconds;

constexpr seconds kStepLimit{35};   // a delete waits up to 30 s for commands in flight
constexpr seconds kLeastLimit{3};   // less than targetcli needs to start helps nobody
constexpr seconds kRunnerTime{10};  // the plug-in's runner waits that long for its devices
constexpr seconds kHurry{3};
constexpr seconds kHurryEnd{8};

/// SIGHUP not when it was ignored at the start (nohup): then a terminal that is closed isn't meant.
/// One that is both blocked and ignored would still be taken.
sigset_t StopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) != 0 || hangup.sa_handler != SIG_IGN)
        sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void StopSignals::Block() {
    const sigset_t set = StopSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

StopSignals::StopSignals(const std::filesystem::path& runDirectory, seconds allowance,
                         std::function<void()> overdue)
    : m_limitFile(runDirectory / "targetcli/limit"),
      m_allowance(allowance),
      m_overdue(std::move(overdue)),
      m_thread([this] { Run(); }) {
    EndLimit();  // of a host that was killed while it stopped
}

void StopSignals::End() {
    if (!m_thread.joinable())
        return;
    m_ending = true;
    // Blocked there and taken by sigwait: it wakes the thread, and ends nothing.
    pthread_kill(m_thread.native_handle(), SIGTERM);  // NOLINT(bugprone-bad-signal-to-kill-thread)
    m_thread.join();
    EndLimit();
}

void StopSignals::EndLimit() {
    std::error_code ignored;
    std::filesystem::remove(m_limitFile, ignored);
}

/// Without memory for it a command keeps the limit that it has; the stop goes on.
void StopSignals::LimitTargetcli(seconds limit) {
    ExceptionOf([&] {
        // Renamed into place: a wrapper that looks meanwhile must not see half a number.
        std::error_code ignored;
        std::filesystem::create_directories(m_limitFile.parent_path(), ignored);
        const std::filesystem::path draft = m_limitFile.string() + ".new";
        std::ofstream(draft) << limit.count() << '\n';
        std::filesystem::rename(draft, m_limitFile, ignored);
    });
}

void StopSignals::BeginLocked() {
    if (m_begun)
        return;
    m_begun = true;
    m_end = Clock::now() + m_allowance;
    m_deadline = m_end - kRunnerTime;
    LimitTargetcli(kStepLimit);
}

void StopSignals::Begin() {
    const MutexGuard guard(m_mutex);
    BeginLocked();
}

std::chrono::nanoseconds StopSignals::UntilOverdue() {
    const MutexGuard guard(m_mutex);
    return m_begun ? m_end - Clock::now() : std::chrono::hours(1);
}

void StopSignals::Take() {
    const MutexGuard guard(m_mutex);
    if (m_asked) {
        m_deadline = std::min(m_deadline, Clock::now() + kHurry);
        m_end = std::min(m_end, Clock::now() + kHurryEnd);
        LimitTargetcli(kHurry);
    }
    m_asked = true;
    BeginLocked();
    m_change.notify_all();
}

void StopSignals::Run() {
    const sigset_t set = StopSet();
    while (!m_ending) {
        const std::chrono::nanoseconds left = UntilOverdue();
        if (left.count() <= 0) {
            m_overdue();
            return;
        }
        // A stop that begins without a signal is noticed within a second.
        const auto wait = std::min<std::chrono::nanoseconds>(left, seconds(1));
        const timespec time{wait.count() / 1000000000, wait.count() % 1000000000};
        if (sigtimedwait(&set, nullptr, &time) > 0 && !m_ending)
            Take();
    }
}

void StopSignals::Wait() {
    const MutexGuard guard(m_mutex);
    while (!m_asked)
        m_change.wait(m_mutex);
}

bool StopSignals::OutOfTime() {
    const MutexGuard guard(m_mutex);
    if (!m_begun)
        return false;
    const seconds left = std::chrono::duration_cast<seconds>(m_deadline - Clock::now());
    if (left.count() <= 0)
        return true;
    LimitTargetcli(std::clamp(left, kLeastLimit, kStepLimit));
    return false;
}
