#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "adapters/framework/CLogWriterInterface.h"
#include "util/Mutex.h"

/// Keeps what is logged, for tests to compare, and what else a test's seams note (commands, sleeps,
/// watched mutexes), all in one order. Installed once a process, because other threads may be
/// logging when the next test begins; a test starts with Reset.
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
        m_events.clear();
        m_level = level;
    }

    /// Reports "+name" and "-name" when `mutex` is locked and unlocked (OsSeams.cpp does it); null
    /// ends all watching. One thread at a time calls it; others may be locking meanwhile.
    void Watch(const Mutex* mutex, const char* name) {
        if (mutex == nullptr) {
            m_watchedCount = 0;
        } else {
            m_watched.at(m_watchedCount) = {mutex, name};
            ++m_watchedCount;
        }
    }
    /// The name that `mutex` is watched under, or null.
    const char* Watched(const void* mutex) const {
        for (size_t i = 0; i < m_watchedCount; ++i) {
            if (m_watched[i].first == mutex)
                return m_watched[i].second;
        }
        return nullptr;
    }

    void Note(std::string event) {
        MutexGuard guard(m_mutex);
        m_events.push_back(std::move(event));
    }
    /// Everything in order; messages as "[level] text".
    std::vector<std::string> Events() const {
        MutexGuard guard(m_mutex);
        return m_events;
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
        char text[8192];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof text, format, args);
        va_end(args);
        MutexGuard guard(m_mutex);
        m_lines.push_back({level, function, text});
        m_events.push_back("[" + std::to_string(level) + "] " + text);
    }
    int GetDebugLevel() override { return m_level; }

  private:
    std::atomic<int> m_level{-1};
    mutable Mutex m_mutex;
    std::vector<Line> m_lines MO_GUARDED_BY(m_mutex);
    std::vector<std::string> m_events MO_GUARDED_BY(m_mutex);
    std::array<std::pair<const void*, const char*>, 4> m_watched{};
    std::atomic<size_t> m_watchedCount{0};
};
