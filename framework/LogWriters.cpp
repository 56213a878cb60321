#include "framework/LogWriters.h"

#include <pthread.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <deque>
#include <exception>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <utility>

#include "framework/FXString.h"
#include "framework/LogRateLimit.h"
#include "framework/Mutex.h"
#include "framework/QueuedOutput.h"
#include "framework/ThreadSignals.h"

namespace {

/// A message as one line: without its last line feed, others turned into blanks.
std::string OneLine(std::string text) {
    if (!text.empty() && text.back() == '\n')
        text.pop_back();
    for (char& c : text)
        if (c == '\n' || c == '\r')
            c = ' ';
    return text;
}

OutputQueue::Rank RankOf(int level) {
    return level < 0 ? OutputQueue::Rank::Important : OutputQueue::Rank::Ordinary;
}

using Line = LogRateLimit::Line;

/// Formats messages, and holds the limit of those that others cause.
class LineWriter final : public CLogWriterInterface {
  public:
    using Write = void (*)(const Line&);

    LineWriter(int level, LimitedFunctions limited, Write write)
        : m_level(level), m_limited(std::move(limited)), m_write(write) {}

    ~LineWriter() override {
        std::thread counts;
        {
            const MutexGuard guard(m_mutex);
            m_ending = true;
            counts = std::move(m_counts);
        }
        m_change.notify_all();
        if (counts.joinable())
            counts.join();
    }

    LineWriter(const LineWriter&) = delete;
    LineWriter& operator=(const LineWriter&) = delete;

    void WriteMessage(int level, const char* function, int line, int, int, const char* format,
                      ...) override __attribute__((format(printf, 7, 8))) {
        va_list args;
        va_start(args, format);
        try {
            const Line out{{function, line}, level, OneLine(FXString::FormatV(format, args))};
            if (!IsLimited(out) || Allows(out))
                m_write(out);
        } catch (const std::exception&) {
            // No memory: what would be said costs the line, not the caller.
            QueuedOutput::Put(STDERR_FILENO, "[-1] no memory\n", OutputQueue::Rank::Important);
        }
        va_end(args);
    }

    int GetDebugLevel() override { return m_level; }

  private:
    // Errors only: who asks for more than errors wants all of it.
    bool IsLimited(const Line& line) const {
        const std::string_view function = line.place.function;
        return line.level < 0 &&
               std::any_of(m_limited.begin(), m_limited.end(), [&](const char* part) {
                   return function.find(part) != std::string_view::npos;
               });
    }

    bool Allows(const Line& line) MO_EXCLUDES(m_mutex) {
        const MutexGuard guard(m_mutex);
        if (m_limit.Allows(line, std::chrono::steady_clock::now()))
            return true;
        if (!m_counts.joinable() && !m_ending) {
            const ThreadSignals mask;
            try {
                m_counts = std::thread([this] { WriteCounts(); });
            } catch (const std::system_error&) {
                return false;  // the next line tries again
            }
        }
        m_change.notify_all();
        return false;
    }

    void WriteCounts() MO_EXCLUDES(m_mutex) {
        pthread_setname_np(pthread_self(), "moscsi-log");
        const MutexGuard guard(m_mutex);
        while (!m_ending) {
            try {
                for (const Line& count : m_limit.TakeCounts(std::chrono::steady_clock::now()))
                    m_write(count);
            } catch (const std::exception&) {
                continue;  // no memory: what was counted is counted on
            }
            if (const auto next = m_limit.NextCount())
                m_change.wait_until(m_mutex, *next);
            else
                m_change.wait(m_mutex);
        }
    }

    const int m_level;
    const LimitedFunctions m_limited;
    const Write m_write;

    Mutex m_mutex;
    std::condition_variable_any m_change;
    LogRateLimit m_limit MO_GUARDED_BY(m_mutex);
    bool m_ending MO_GUARDED_BY(m_mutex) = false;
    std::thread m_counts MO_GUARDED_BY(m_mutex);  // once something is counted
};

void WriteToStderr(const Line& line) {
    std::string out;
    // Where it was logged matters to a reader of errors and traces, not of progress.
    if (line.level >= 0 && line.level < 6)
        FXString::Format(out, "[%d] %s\n", line.level, line.text.c_str());
    else
        FXString::Format(out, "[%d] %s (%s:%d)\n", line.level, line.text.c_str(),
                         line.place.function, line.place.line);
    QueuedOutput::Put(STDERR_FILENO, std::move(out), RankOf(line.level));
}

void WriteToSyslog(const Line& line) {
    const int priority = line.level < 0 ? LOG_ERR : line.level < 2 ? LOG_INFO : LOG_DEBUG;
    std::string out;
    FXString::Format(out, "%s (%s:%d)", line.text.c_str(), line.place.function, line.place.line);
    QueuedOutput::PutSyslog(priority, std::move(out), RankOf(line.level));
}

}  // namespace

std::shared_ptr<CLogWriterInterface>& g_ptrLogWriter =
    *new std::shared_ptr<CLogWriterInterface>(MakeStderrLogWriter(0));

std::shared_ptr<CLogWriterInterface> MakeStderrLogWriter(int level, LimitedFunctions limited) {
    return std::make_shared<LineWriter>(level, std::move(limited), WriteToStderr);
}

std::shared_ptr<CLogWriterInterface> MakeSyslogLogWriter(const char* ident, int level,
                                                         LimitedFunctions limited) {
    // Kept, and left open: openlog keeps the pointer, and lines of a writer that is gone may still
    // be queued.
    static auto& idents = *new std::deque<std::string>;
    openlog(idents.emplace_back(ident).c_str(), LOG_PID, LOG_DAEMON);
    return std::make_shared<LineWriter>(level, std::move(limited), WriteToSyslog);
}
