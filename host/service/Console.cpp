#include "host/service/Console.h"

#include <fmt/format.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <thread>

#include "framework/Mutex.h"

namespace {

using Clock = std::chrono::steady_clock;

void WriteLine(int descriptor, std::string line) {
    line += '\n';
    // One call a line. A reader that went away must not end the service.
    [[maybe_unused]] const ssize_t written = write(descriptor, line.data(), line.size());
}

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Says every five seconds that a step still runs, until it is destroyed.
class Progress {
  public:
    Progress(Console& console, const std::string& what)
        : m_console(console), m_what(what), m_thread([this] { Run(); }) {}

    ~Progress() {
        {
            const MutexGuard guard(m_mutex);
            m_done = true;
        }
        m_change.notify_all();
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
    WriteLine(STDERR_FILENO, "moscsi-host: " + line);
}

CRyError RunStep(Console& console, const std::string& what,
                 const std::function<CRyError()>& operation) {
    const Clock::time_point start = Clock::now();
    CRyError result;
    {
        const Progress progress(console, what);
        result = operation();
    }
    const std::string end =
        result.IsError() ? fmt::format("failed (error {}): {}", result.Number(), result.Message())
                         : std::string("done");
    console.Say(fmt::format("{}: {}, {:.1f} s", what, end, SecondsSince(start)));
    return result;
}
