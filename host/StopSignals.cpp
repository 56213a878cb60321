#include "host/StopSignals.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <fstream>

namespace moscsi::host {
namespace {

using std::chrono::seconds;

constexpr seconds kStepLimit{35};  // a delete waits up to 30 s for commands in flight
constexpr seconds kLeastLimit{3};  // less than targetcli needs to start helps nobody
constexpr seconds kHurry{3};

sigset_t StopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

void StopSignals::Block() {
    const sigset_t set = StopSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

StopSignals::StopSignals(const std::filesystem::path& runDirectory, seconds allowance)
    : m_limitFile(runDirectory / "targetcli/limit"),
      m_allowance(allowance),
      m_thread([this] { Run(); }) {
    std::error_code ignored;
    std::filesystem::remove(m_limitFile, ignored);  // of a host that was killed while it stopped
}

void StopSignals::End() {
    if (!m_thread.joinable())
        return;
    m_ending = true;
    pthread_kill(m_thread.native_handle(), SIGTERM);
    m_thread.join();
    std::error_code ignored;
    std::filesystem::remove(m_limitFile, ignored);
}

void StopSignals::LimitTargetcli(seconds limit) {
    // Renamed into place: a wrapper that looks meanwhile must not see half a number.
    std::error_code ignored;
    std::filesystem::create_directories(m_limitFile.parent_path(), ignored);
    const std::filesystem::path draft = m_limitFile.string() + ".new";
    std::ofstream(draft) << limit.count() << '\n';
    std::filesystem::rename(draft, m_limitFile, ignored);
}

void StopSignals::BeginLocked() {
    if (m_begun)
        return;
    m_begun = true;
    m_deadline = Clock::now() + m_allowance;
    LimitTargetcli(kStepLimit);
}

void StopSignals::Begin() {
    const MutexGuard guard(m_mutex);
    BeginLocked();
}

void StopSignals::Run() {
    const sigset_t set = StopSet();
    for (;;) {
        int signal = 0;
        if (sigwait(&set, &signal) != 0)
            continue;
        if (m_ending)
            return;
        const MutexGuard guard(m_mutex);
        if (m_asked) {
            m_deadline = std::min(m_deadline, Clock::now() + kHurry);
            LimitTargetcli(kHurry);
        }
        m_asked = true;
        BeginLocked();
        m_change.notify_all();
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

}  // namespace moscsi::host
