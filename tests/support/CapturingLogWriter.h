#pragma once

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/CLogWriterInterface.h"
#include "framework/Mutex.h"

/// Keeps what is logged, for tests to compare, and what else a test's seams note (commands, sleeps,
/// watched mutexes), all in one order. Installed once a process, because other threads may be
/// logging when the next test begins; a test starts with Reset.
///
/// Thread: any.
struct CapturingLogWriter : CLogWriterInterface {
    using Strings = std::vector<std::string>;

    /// The process's writer, put in place of the framework's own at the first call.
    static CapturingLogWriter& Installed() {
        static const std::shared_ptr<CapturingLogWriter> writer = [] {
            auto made = std::make_shared<CapturingLogWriter>();
            g_ptrLogWriter = made;
            return made;
        }();
        return *writer;
    }

    /// Forgets what was kept; messages and traces above `level` are left out from now on, and what
    /// seams note unless `notes`.
    void Reset(int level, bool notes = true) {
        const MutexGuard guard(m_mutex);
        m_events.clear();
        m_functions.clear();
        m_texts.clear();
        m_level = level;
        m_notes = notes;
    }

    /// Notes "+name" and "-name" when `mutex` is locked and unlocked (OsSeams.cpp does it), and no
    /// other one under that name; null ends it. `name` is one of kWatched.
    static constexpr std::array<const char*, 4> kWatched = {"cfg", "map", "dev", "instance"};
    void Watch(const std::string& name, const void* mutex) {
        for (size_t i = 0; i < kWatched.size(); ++i)
            if (name == kWatched[i])
                m_watched[i] = mutex;
    }
    void NoteIfWatched(char sign, const void* mutex) {
        for (size_t i = 0; i < kWatched.size(); ++i)
            if (m_watched[i] == mutex)
                Note(std::string(1, sign) + kWatched[i]);
    }

    void Note(const std::string& text) {
        const MutexGuard guard(m_mutex);
        if (m_notes)
            m_events.push_back(text);
    }

    /// Everything in order; messages as "[level] text".
    Strings Events() {
        const MutexGuard guard(m_mutex);
        return m_events;
    }
    /// The texts of exactly this level, in order.
    Strings Texts(int level) {
        const MutexGuard guard(m_mutex);
        return m_texts[level];
    }
    /// The signatures that the messages carry, in order.
    Strings Functions() {
        const MutexGuard guard(m_mutex);
        return m_functions;
    }

    __attribute__((format(printf, 7, 8))) void WriteMessage(int level, const char* function,
                                                            int line, int reserved1, int reserved2,
                                                            const char* format, ...) override {
        EXPECT_TRUE(line > 0 && reserved1 == 0 && reserved2 == 0) << function << ':' << line;
        char text[8192];
        va_list args;
        va_start(args, format);
        vsnprintf(text, sizeof text, format, args);
        va_end(args);
        const MutexGuard guard(m_mutex);
        m_events.push_back("[" + std::to_string(level) + "] " + text);
        m_functions.emplace_back(function);
        m_texts[level].emplace_back(text);
    }
    int GetDebugLevel() override { return m_level; }

  private:
    std::atomic<int> m_level{-1};
    Mutex m_mutex;
    bool m_notes MO_GUARDED_BY(m_mutex) = true;
    Strings m_events MO_GUARDED_BY(m_mutex);
    Strings m_functions MO_GUARDED_BY(m_mutex);
    std::map<int, Strings> m_texts MO_GUARDED_BY(m_mutex);
    std::array<std::atomic<const void*>, kWatched.size()> m_watched{};
};
