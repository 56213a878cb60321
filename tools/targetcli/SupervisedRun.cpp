#include "tools/targetcli/SupervisedRun.h"

#include <poll.h>
#include <sys/wait.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "tools/targetcli/Proc.h"

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

    Outcome Run(const Command& command);

  private:
    bool Finished() const { return m_ended && m_out.Done() && m_err.Done(); }
    void Wait();
    void CheckLock(Clock::duration sinceLast);
    std::string LimitReached() const;
    Outcome GiveUp(int status, const std::string& cause);
    Outcome OwnEnd() const;

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

std::string Seconds(std::chrono::seconds time) {
    return std::to_string(time.count()) + " s";
}

Outcome Supervisor::Run(const Command& command) {
    int error = m_out.Open();
    if (error == 0)
        error = m_err.Open();
    if (error == 0)
        error = m_child.Start(command, m_out.ChildFd(), m_err.ChildFd());
    if (error != 0)
        return {kStatusNotStarted, command.program + " can't be started: " + strerror(error)};
    m_out.CloseChildFd();
    m_err.CloseChildFd();
    m_pid = m_child.Pid();

    Clock::time_point checked = Clock::now();
    while (!Finished()) {
        Wait();
        // A signal that comes later is for the command that may follow.
        if (const int number = m_ended ? 0 : m_interrupts.Take(); number != 0) {
            return GiveUp(128 + number, "targetcli was interrupted by signal " +
                                            std::to_string(number) + " (" + strsignal(number) +
                                            ")");
        }
        const Clock::time_point now = Clock::now();
        if (now - checked < kTick)
            continue;
        CheckLock(now - checked);
        checked = now;
        if (const std::string cause = LimitReached(); !cause.empty())
            return m_ended ? OwnEnd() : GiveUp(kStatusLimit, cause);
    }
    return OwnEnd();
}

void Supervisor::Wait() {
    std::array<pollfd, 6> polled = {{{m_ended ? -1 : m_child.ExitFd(), POLLIN, 0},
                                     {m_interrupts.Fd(), POLLIN, 0},
                                     {m_out.SourceFd(), POLLIN, 0},
                                     {m_err.SourceFd(), POLLIN, 0},
                                     {m_out.SinkFd(), POLLOUT, 0},
                                     {m_err.SinkFd(), POLLOUT, 0}}};
    // Once the child has ended nothing more comes: what the pipes hold is taken without waiting.
    const bool inputIsThere = m_ended && (m_out.SourceFd() >= 0 || m_err.SourceFd() >= 0);
    poll(polled.data(), polled.size(), inputIsThere ? 0 : static_cast<int>(kTick.count()));

    if (polled[0].revents != 0) {
        m_waitStatus = m_child.Reap();
        m_ended = true;
    }
    if (polled[2].revents != 0 || m_ended)
        m_out.TakeInput(m_ended);
    if (polled[3].revents != 0 || m_ended)
        m_err.TakeInput(m_ended);
    if (polled[4].revents != 0)
        m_out.GiveOutput();
    if (polled[5].revents != 0)
        m_err.GiveOutput();
}

void Supervisor::CheckLock(Clock::duration sinceLast) {
    const std::optional<pid_t> before = m_lockHolder;
    m_lockHolder = m_ended ? std::nullopt : LockHolder(m_pid);
    if (m_lockHolder && m_lockHolder == before)
        m_limit.AddLockWait(sinceLast);
    else
        m_limit.RestartLockWait();
}

std::string Supervisor::LimitReached() const {
    const bool expired = m_limit.Expired();
    if (m_lockHolder && (expired || m_limit.LockWaitExpired())) {
        return "targetcli waited " + Seconds(m_limit.LockWaited()) + " for its lock, which " +
               NameProcess(*m_lockHolder) + " holds: end that one, then try again";
    }
    return expired ? "targetcli, process " + std::to_string(m_pid) + ", did not end within " +
                         Seconds(m_limit.Limit())
                   : "";
}

Outcome Supervisor::GiveUp(int status, const std::string& cause) {
    if (m_child.Kill(kKillPatience))
        return {status, cause + (m_lockHolder ? "" : "; it was ended")};
    return {status, cause + "; process " + std::to_string(m_pid) +
                        " can't be ended, it hangs in the " + "kernel (state " +
                        ProcessState(m_pid) + ", in " + KernelWait(m_pid) + ") and is left behind"};
}

Outcome Supervisor::OwnEnd() const {
    if (!WIFSIGNALED(m_waitStatus))
        return {WEXITSTATUS(m_waitStatus), ""};
    const int number = WTERMSIG(m_waitStatus);
    return {128 + number, "targetcli, process " + std::to_string(m_pid) + ", was ended by signal " +
                              std::to_string(number) + " (" + strsignal(number) + ")"};
}

}  // namespace

Outcome RunSupervised(const Command& command, ChildOutput& out, ChildOutput& err, TimeLimit& limit,
                      const Interrupts& interrupts) {
    return Supervisor(out, err, limit, interrupts).Run(command);
}

std::string ReasonOf(const Outcome& outcome, const ChildOutput& out, const ChildOutput& err) {
    if (!outcome.complaint.empty())
        return outcome.complaint;
    for (const ChildOutput* stream : {&err, &out})
        if (stream->SaidSomething())
            return std::string(stream->LastLine());
    return "targetcli failed with status " + std::to_string(outcome.status) + " and said nothing";
}
