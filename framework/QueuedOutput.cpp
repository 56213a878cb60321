#include "framework/QueuedOutput.h"

#include <poll.h>
#include <pthread.h>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <exception>
#include <memory>
#include <string_view>
#include <utility>

#include "framework/ThreadSignals.h"

namespace {

using Clock = std::chrono::steady_clock;
using Rank = OutputQueue::Rank;

constexpr size_t kOverhead = 64;  // of the queue, for a line

// Whether this thread is a queue's own: it can't wait for itself.
thread_local constinit bool t_ofAQueue = false;

size_t BytesOf(const OutputQueue::Line& line) {
    return line.text.size() + kOverhead;
}

}  // namespace

OutputQueue::OutputQueue(Write write, Note note, Limits limits)
    : m_write(std::move(write)), m_note(std::move(note)), m_limits(limits) {}

OutputQueue::~OutputQueue() {
    std::thread thread;
    {
        const MutexGuard guard(m_mutex);
        m_ending = true;
        thread = std::move(m_thread);
    }
    m_change.notify_all();
    if (thread.joinable())
        thread.join();
}

void OutputQueue::Put(Line line, Rank rank) noexcept {
    const MutexGuard guard(m_mutex);
    const size_t limit = m_limits.ordinary + (rank == Rank::Important ? m_limits.reserve : 0);
    // Once some were dropped, ordinary ones wait for the line that tells of them.
    const bool fits =
        m_bytes + BytesOf(line) <= limit && (m_dropped == 0 || rank == Rank::Important);
    try {
        if (fits)
            AppendLocked(std::move(line));
    } catch (const std::exception&) {
        ++m_dropped;
    }
    if (!fits)
        ++m_dropped;
    StartLocked();
    m_change.notify_all();
}

void OutputQueue::AppendLocked(Line line) {
    const size_t bytes = BytesOf(line);
    m_lines.push_back(std::move(line));
    m_bytes += bytes;
    ++m_pending;
}

void OutputQueue::StartLocked() {
    if (m_thread.joinable() || m_ending)
        return;
    const ThreadSignals mask;
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::exception&) {
        return;  // the lines stay, and the next one tries again
    }
}

void OutputQueue::TellOfDroppedLocked() {
    if (m_dropped == 0 || m_bytes > m_limits.ordinary / 2)
        return;
    try {
        AppendLocked(m_note(m_dropped));
        m_dropped = 0;
    } catch (const std::exception&) {
        return;  // no memory: told later
    }
}

void OutputQueue::Run() {
    pthread_setname_np(pthread_self(), "moscsi-output");
    t_ofAQueue = true;
    for (;;) {
        Line line;
        {
            const MutexGuard guard(m_mutex);
            for (TellOfDroppedLocked(); m_lines.empty() && !m_ending; TellOfDroppedLocked())
                m_change.wait(m_mutex);
            if (m_ending)
                return;
            line = std::move(m_lines.front());
            m_bytes -= BytesOf(line);
            m_lines.pop_front();
        }
        m_write(line);
        const MutexGuard guard(m_mutex);
        TellOfDroppedLocked();
        --m_pending;
        m_change.notify_all();
    }
}

bool OutputQueue::Flush(Clock::time_point deadline) {
    const MutexGuard guard(m_mutex);
    StartLocked();
    while (m_pending != 0)
        if (m_change.wait_until(m_mutex, deadline) == std::cv_status::timeout)
            return m_pending == 0;
    return true;
}

namespace {

/// The whole line, whatever it takes. A destination that is gone takes nothing; one that somebody
/// made non-blocking (its users share that) is waited for.
void WriteToDescriptor(const OutputQueue::Line& line) {
    std::string_view left = line.text;
    while (!left.empty()) {
        // One call for the whole line, so that lines of several processes don't mix.
        const ssize_t written = write(line.target, left.data(), left.size());
        if (written > 0) {
            left.remove_prefix(static_cast<size_t>(written));
        } else if (written < 0 && errno == EAGAIN) {
            pollfd room{line.target, POLLOUT, 0};
            poll(&room, 1, -1);
        } else if (written == 0 || errno != EINTR) {
            return;
        }
    }
}

std::string DroppedText(size_t count) {
    return std::to_string(count) + " lines were dropped here, since nobody took this output";
}

OutputQueue::Line DroppedLine(size_t count) {
    return {STDERR_FILENO, "[-1] " + DroppedText(count) + "\n"};
}

bool OutputAndErrorAreOneFile() {
    struct stat output {};
    struct stat error {};
    return fstat(STDOUT_FILENO, &output) == 0 && fstat(STDERR_FILENO, &error) == 0 &&
           output.st_dev == error.st_dev && output.st_ino == error.st_ino;
}

/// Made with the first line and never destroyed: threads may log while the process ends.
struct Queues {
    Queues()
        : error(WriteToDescriptor, DroppedLine, {}),
          syslog(
              [](const OutputQueue::Line& line) { ::syslog(line.target, "%s", line.text.c_str()); },
              [](size_t count) {
                  return OutputQueue::Line{LOG_ERR, DroppedText(count)};
              },
              {}) {
        if (!OutputAndErrorAreOneFile())
            separateOutput = std::make_unique<OutputQueue>(
                WriteToDescriptor,
                [](size_t count) {
                    return OutputQueue::Line{STDOUT_FILENO, DroppedText(count) + "\n"};
                },
                OutputQueue::Limits{});
        std::atexit([] { QueuedOutput::Flush(); });
    }

    OutputQueue& For(int descriptor) {
        return descriptor == STDOUT_FILENO && separateOutput ? *separateOutput : error;
    }

    std::array<OutputQueue*, 3> All() { return {&error, separateOutput.get(), &syslog}; }

    OutputQueue error;
    OutputQueue syslog;
    std::unique_ptr<OutputQueue> separateOutput;  // null: it is error's
};

std::atomic<Queues*> g_queues{nullptr};  // for those who may not make them

Queues& AllQueues() {
    static Queues* const made = [] {
        g_queues = new Queues;
        return g_queues.load();
    }();
    return *made;
}

bool AnyPending() {
    Queues* const queues = g_queues;
    if (queues != nullptr)
        for (const OutputQueue* queue : queues->All())
            if (queue != nullptr && queue->Pending() != 0)
                return true;
    return false;
}

/// The other threads go on while a handler runs, those of the queues too: it only waits.
void OnFault(int signal) {
    const int error = errno;
    const timespec pause{0, 5'000'000};
    for (auto left = QueuedOutput::kFlushLimit; !t_ofAQueue && AnyPending() && left.count() > 0;
         left -= std::chrono::milliseconds(5))
        nanosleep(&pause, nullptr);
    errno = error;
    raise(signal);  // the action is the default again, and comes when this returns
}

/// The library's own writes to standard error itself, and would wait for a reader there.
[[noreturn]] void OnTerminate() {
    std::string reason = "no exception";
    if (const std::exception_ptr current = std::current_exception())
        try {
            std::rethrow_exception(current);
        } catch (const std::exception& error) {
            reason = error.what();
        } catch (...) {
            reason = "an exception of another kind";
        }
    QueuedOutput::Put(STDERR_FILENO, "[-1] this process ends itself: " + reason + "\n",
                      Rank::Important);
    std::abort();
}

}  // namespace

void QueuedOutput::Put(int descriptor, std::string line, Rank rank) noexcept {
    AllQueues().For(descriptor).Put({descriptor, std::move(line)}, rank);
}

void QueuedOutput::PutSyslog(int priority, std::string message, Rank rank) noexcept {
    AllQueues().syslog.Put({priority, std::move(message)}, rank);
}

bool QueuedOutput::Flush(std::chrono::milliseconds limit) {
    const Clock::time_point deadline = Clock::now() + limit;
    bool all = true;
    if (Queues* const queues = g_queues)
        for (OutputQueue* queue : queues->All())
            all = (queue == nullptr || queue->Flush(deadline)) && all;
    return all;
}

void QueuedOutput::FlushAtFaults() {
    std::set_terminate(OnTerminate);
    for (const int signal : {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL}) {
        struct sigaction action {};
        if (sigaction(signal, nullptr, &action) != 0 || action.sa_handler != SIG_DFL)
            continue;  // a sanitizer's
        action = {};
        action.sa_handler = OnFault;
        action.sa_flags = SA_RESETHAND;
        sigaction(signal, &action, nullptr);
    }
}
