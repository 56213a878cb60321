#include "adapters/targetcli/SupervisedRun.h"

#include <poll.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "adapters/targetcli/Proc.h"

namespace moscsi::wrapper {
namespace {

using std::chrono::milliseconds;
using Clock = TimeLimit::Clock;

// How often limits, lock and limit file are looked at.
constexpr milliseconds kTick{100};
// How long a killed process may take to be gone, before it counts as hanging in the kernel.
constexpr milliseconds kKillPatience{2000};

class Supervisor {
  public:
    Supervisor(ChildOutput& out, ChildOutput& err, TimeLimit& limit, const Interrupts& interrupts)
        : m_out(out), m_err(err), m_limit(limit), m_interrupts(interrupts) {}

    Outcome run(const Command& command);

  private:
    bool finished() const { return m_ended && m_out.done() && m_err.done(); }
    void wait();
    void checkLock(Clock::duration sinceLast);
    std::string limitReached() const;
    Outcome giveUp(int status, const std::string& cause);
    Outcome ownEnd() const;

    ChildOutput& m_out;
    ChildOutput& m_err;
    TimeLimit& m_limit;
    const Interrupts& m_interrupts;
    ChildProcess m_child;
    pid_t m_pid = 0;
    bool m_ended = false;
    int m_waitStatus = 0;
    std::optional<pid_t> m_lockHolder;  // while the child waits for the lock
};

std::string seconds(std::chrono::seconds time) {
    return std::to_string(time.count()) + " s";
}

Outcome Supervisor::run(const Command& command) {
    int error = m_out.open();
    if (error == 0) {
        error = m_err.open();
    }
    if (error == 0) {
        error = m_child.start(command, m_out.childFd(), m_err.childFd());
    }
    if (error != 0) {
        return {kStatusNotStarted, command.program + " can't be started: " + strerror(error)};
    }
    m_out.closeChildFd();
    m_err.closeChildFd();
    m_pid = m_child.pid();

    Clock::time_point checked = Clock::now();
    while (!finished()) {
        wait();
        if (const int number = m_interrupts.take(); number != 0 && !m_ended) {
            return giveUp(128 + number, "targetcli was interrupted by signal " +
                                            std::to_string(number) + " (" + strsignal(number) +
                                            ")");
        }
        const Clock::time_point now = Clock::now();
        if (now - checked < kTick) {
            continue;
        }
        checkLock(now - checked);
        checked = now;
        if (const std::string cause = limitReached(); !cause.empty()) {
            return m_ended ? ownEnd() : giveUp(kStatusLimit, cause);
        }
    }
    return ownEnd();
}

void Supervisor::wait() {
    std::array<pollfd, 6> polled = {{{m_ended ? -1 : m_child.exitFd(), POLLIN, 0},
                                     {m_interrupts.fd(), POLLIN, 0},
                                     {m_out.sourceFd(), POLLIN, 0},
                                     {m_err.sourceFd(), POLLIN, 0},
                                     {m_out.sinkFd(), POLLOUT, 0},
                                     {m_err.sinkFd(), POLLOUT, 0}}};
    // Once the child has ended nothing more comes: what the pipes hold is taken without waiting.
    const bool inputIsThere = m_ended && (m_out.sourceFd() >= 0 || m_err.sourceFd() >= 0);
    poll(polled.data(), polled.size(), inputIsThere ? 0 : static_cast<int>(kTick.count()));

    if (polled[0].revents != 0) {
        m_waitStatus = m_child.reap();
        m_ended = true;
    }
    if (polled[2].revents != 0 || m_ended) {
        m_out.takeInput(m_ended);
    }
    if (polled[3].revents != 0 || m_ended) {
        m_err.takeInput(m_ended);
    }
    if (polled[4].revents != 0) {
        m_out.giveOutput();
    }
    if (polled[5].revents != 0) {
        m_err.giveOutput();
    }
}

void Supervisor::checkLock(Clock::duration sinceLast) {
    const std::optional<pid_t> before = m_lockHolder;
    m_lockHolder = m_ended ? std::nullopt : lockHolder(m_pid);
    if (m_lockHolder && m_lockHolder == before) {
        m_limit.addLockWait(sinceLast);
    } else {
        m_limit.restartLockWait();
    }
}

std::string Supervisor::limitReached() const {
    const bool expired = m_limit.expired();
    if (m_lockHolder && (expired || m_limit.lockWaitExpired())) {
        return "targetcli waited " + seconds(m_limit.lockWaited()) + " for its lock, which " +
               nameProcess(*m_lockHolder) + " holds: end that one, then try again";
    }
    return expired ? "targetcli, process " + std::to_string(m_pid) + ", did not end within " +
                         seconds(m_limit.limit())
                   : "";
}

Outcome Supervisor::giveUp(int status, const std::string& cause) {
    if (m_child.kill(kKillPatience)) {
        return {status, cause + (m_lockHolder ? "" : "; it was ended")};
    }
    return {status, cause + "; process " + std::to_string(m_pid) +
                        " can't be ended, it hangs in the " + "kernel (state " +
                        processState(m_pid) + ", in " + kernelWait(m_pid) + ") and is left behind"};
}

Outcome Supervisor::ownEnd() const {
    if (!WIFSIGNALED(m_waitStatus)) {
        return {WEXITSTATUS(m_waitStatus), ""};
    }
    const int number = WTERMSIG(m_waitStatus);
    return {128 + number, "targetcli, process " + std::to_string(m_pid) + ", was ended by signal " +
                              std::to_string(number) + " (" + strsignal(number) + ")"};
}

}  // namespace

Outcome runSupervised(const Command& command, ChildOutput& out, ChildOutput& err, TimeLimit& limit,
                      const Interrupts& interrupts) {
    return Supervisor(out, err, limit, interrupts).run(command);
}

std::string reasonOf(const Outcome& outcome, const ChildOutput& out, const ChildOutput& err) {
    if (!outcome.complaint.empty()) {
        return outcome.complaint;
    }
    for (const ChildOutput* stream : {&err, &out}) {
        if (stream->saidSomething()) {
            return std::string(stream->lastLine());
        }
    }
    return "targetcli failed with status " + std::to_string(outcome.status) + " and said nothing";
}

}  // namespace moscsi::wrapper
