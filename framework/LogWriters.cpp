#include "framework/LogWriters.h"

#include <syslog.h>
#include <unistd.h>

#include <cstdarg>
#include <string>

#include "framework/FXString.h"

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

/// What the writers share: a level that never changes and the formatting of a message.
class LineWriter : public CLogWriterInterface {
  public:
    explicit LineWriter(int level) : m_level(level) {}

    void WriteMessage(int level, const char* function, int line, int, int, const char* format,
                      ...) override __attribute__((format(printf, 7, 8))) {
        va_list args;
        va_start(args, format);
        const std::string text = OneLine(FXString::FormatV(format, args));
        va_end(args);
        WriteLine(level, function, line, text);
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
        // One call for the whole line, so that lines of several threads don't mix.
        [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, out.data(), out.size());
    }
};

class SyslogLogWriter final : public LineWriter {
  public:
    SyslogLogWriter(const char* ident, int level) : LineWriter(level), m_ident(ident) {
        openlog(m_ident.c_str(), LOG_PID, LOG_DAEMON);
    }
    ~SyslogLogWriter() override { closelog(); }

    SyslogLogWriter(const SyslogLogWriter&) = delete;
    SyslogLogWriter& operator=(const SyslogLogWriter&) = delete;

  private:
    void WriteLine(int level, const char* function, int line, const std::string& text) override {
        const int priority = level < 0 ? LOG_ERR : level < 2 ? LOG_INFO : LOG_DEBUG;
        syslog(priority, "%s (%s:%d)", text.c_str(), function, line);
    }

    const std::string m_ident;  // openlog keeps the pointer
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
