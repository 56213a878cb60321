#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "adapters/framework/CLogWriterInterface.h"
#include "util/Mutex.h"

/// Keeps what is logged, for tests to compare. Installed once a process, because other threads may
/// be logging when the next test begins; a test starts with Reset.
///
/// Thread: any.
class CapturingLogWriter : public CLogWriterInterface {
  public:
    struct Line {
        int level;
        std::string function;
        std::string text;
    };

    /// The process's writer, put in place of the framework's own at the first call.
    static CapturingLogWriter& Installed() {
        static const std::shared_ptr<CapturingLogWriter> writer = [] {
            auto made = std::make_shared<CapturingLogWriter>();
            g_ptrLogWriter = made;
            return made;
        }();
        return *writer;
    }

    /// Forgets what was logged; messages and traces above `level` are left out from now on.
    void Reset(int level) {
        MutexGuard guard(m_mutex);
        m_lines.clear();
        m_level = level;
    }

    std::vector<Line> Lines() const {
        MutexGuard guard(m_mutex);
        return m_lines;
    }

    /// The texts of exactly this level, in order.
    std::vector<std::string> Texts(int level) const {
        std::vector<std::string> texts;
        for (const Line& line : Lines()) {
            if (line.level == level)
                texts.push_back(line.text);
        }
        return texts;
    }

    __attribute__((format(printf, 7, 8))) void WriteMessage(int level, const char* function,
                                                            int /*line*/, int /*reserved1*/,
                                                            int /*reserved2*/, const char* format,
                                                            ...) override {
        char text[4096];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof text, format, args);
        va_end(args);
        MutexGuard guard(m_mutex);
        m_lines.push_back({level, function, text});
    }
    int GetDebugLevel() override { return m_level; }

  private:
    std::atomic<int> m_level{-1};
    mutable Mutex m_mutex;
    std::vector<Line> m_lines MO_GUARDED_BY(m_mutex);
};
