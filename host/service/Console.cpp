#include "host/service/Console.h"

#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <thread>

#include "framework/ExceptionOf.h"
#include "framework/Mutex.h"
#include "framework/QueuedOutput.h"
#include "host/service/StepCount.h"

namespace {

using Clock = std::chrono::steady_clock;

/// After what the log has queued. A reader that went away is its own loss.
void WriteLine(int descriptor, std::string line) {
    line += '\n';
    QueuedOutput::Flush();
    for (size_t sent = 0; sent < line.size();) {
        const ssize_t written = write(descriptor, line.data() + sent, line.size() - sent);
        if (written < 0 && errno != EINTR)
            return;
        sent += static_cast<size_t>(std::max<ssize_t>(written, 0));
    }
}

std::string Complaint(const std::string& line) {
    return "moscsi-host: " + line;
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Says every five seconds that a step still runs, until it is destroyed. Without a thread for it
/// nothing is said: the step matters more.
class Progress {
  public:
    Progress(Console& console, const std::string& what) : m_console(console), m_what(what) {
        ExceptionOf([this] { m_thread = std::thread([this] { ExceptionOf([this] { Run(); }); }); });
    }

    ~Progress() {
        {
            const MutexGuard guard(m_mutex);
            m_done = true;
        }
        m_change.notify_all();
        if (m_thread.joinable())
            m_thread.join();
    }

    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

  private:
    void Run() {
        constexpr std::chrono::seconds kInterval{5};
        Clock::time_point next = m_start + kInterval;
        const MutexGuard guard(m_mutex);
        while (!m_done) {
            if (m_change.wait_until(m_mutex, next) != std::cv_status::timeout || m_done)
                continue;
            m_console.Say(
                fmt::format("  {}: still running, {:.0f} s", m_what, SecondsSince(m_start)));
            next += kInterval;
        }
    }

    Console& m_console;
    const std::string& m_what;
    const Clock::time_point m_start = Clock::now();
    Mutex m_mutex;
    std::condition_variable_any m_change;
    bool m_done MO_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;  // last: it uses the others
};

}  // namespace

void StandardConsole::Say(const std::string& line) {
    WriteLine(STDOUT_FILENO, line);
}

void StandardConsole::Complain(const std::string& line) {
    WriteLine(STDERR_FILENO, Complaint(line));
}

void QueuedConsole::Say(const std::string& line) {
    QueuedOutput::Put(STDOUT_FILENO, line + '\n', OutputQueue::Rank::Ordinary);
}

void QueuedConsole::Complain(const std::string& line) {
    QueuedOutput::Put(STDERR_FILENO, Complaint(line) + '\n', OutputQueue::Rank::Important);
}

void QueuedConsole::Announce(const std::string& line) {
    QueuedOutput::Put(STDOUT_FILENO, line + '\n', OutputQueue::Rank::Important);
}

CRyError RunStep(Console& console, const std::string& what,
                 const std::function<CRyError()>& operation, StepCount* count) {
    const Clock::time_point start = Clock::now();
    CRyError result;
    {
        const Progress progress(console, what);
        result = operation();
    }
    const std::string end =
        result.IsError() ? fmt::format("failed (error {}): {}", result.Number(), result.Message())
                         : std::string("done");
    console.Say(fmt::format("{}: {}, {:.1f} s{}", what, end, SecondsSince(start),
                            count != nullptr ? count->Done() : ""));
    return result;
}
