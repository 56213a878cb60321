#include "framework/LogWriters.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <deque>
#include <exception>
#include <string>
#include <utility>

#include "framework/FXString.h"
#include "framework/QueuedOutput.h"

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

/// What the writers share: a level that never changes and the formatting of a message.
class LineWriter : public CLogWriterInterface {
  public:
    explicit LineWriter(int level) : m_level(level) {}

    void WriteMessage(int level, const char* function, int line, int, int, const char* format,
                      ...) override __attribute__((format(printf, 7, 8))) {
        va_list args;
        va_start(args, format);
        try {
            WriteLine(level, function, line, OneLine(FXString::FormatV(format, args)));
        } catch (const std::exception&) {
            // No memory: what would be said costs the line, not the caller.
            QueuedOutput::Put(STDERR_FILENO, "[-1] no memory\n", OutputQueue::Rank::Important);
        }
        va_end(args);
    }

    int GetDebugLevel() override { return m_level; }

  private:
    virtual void WriteLine(int level, const char* function, int line, const std::string& text) = 0;

    const int m_level;
};

class StderrLogWriter final : public LineWriter {
  public:
    using LineWriter::LineWriter;

  private:
    void WriteLine(int level, const char* function, int line, const std::string& text) override {
        std::string out;
        // Where it was logged matters to a reader of errors and traces, not of progress.
        if (level >= 0 && level < 6)
            FXString::Format(out, "[%d] %s\n", level, text.c_str());
        else
            FXString::Format(out, "[%d] %s (%s:%d)\n", level, text.c_str(), function, line);
        QueuedOutput::Put(STDERR_FILENO, std::move(out), RankOf(level));
    }
};

class SyslogLogWriter final : public LineWriter {
  public:
    SyslogLogWriter(const char* ident, int level) : LineWriter(level) {
        // Kept, and left open: openlog keeps the pointer, and lines of a writer that is gone may
        // still be queued.
        static auto& idents = *new std::deque<std::string>;
        openlog(idents.emplace_back(ident).c_str(), LOG_PID, LOG_DAEMON);
    }

  private:
    void WriteLine(int level, const char* function, int line, const std::string& text) override {
        const int priority = level < 0 ? LOG_ERR : level < 2 ? LOG_INFO : LOG_DEBUG;
        std::string out;
        FXString::Format(out, "%s (%s:%d)", text.c_str(), function, line);
        QueuedOutput::PutSyslog(priority, std::move(out), RankOf(level));
    }
};

}  // namespace

std::shared_ptr<CLogWriterInterface>& g_ptrLogWriter =
    *new std::shared_ptr<CLogWriterInterface>(MakeStderrLogWriter(0));

std::shared_ptr<CLogWriterInterface> MakeStderrLogWriter(int level) {
    return std::make_shared<StderrLogWriter>(level);
}

std::shared_ptr<CLogWriterInterface> MakeSyslogLogWriter(const char* ident, int level) {
    return std::make_shared<SyslogLogWriter>(ident, level);
}
