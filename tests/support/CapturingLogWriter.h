#pragma once

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <string>
#include <string_view>
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
        MutexGuard guard(m_mutex);
        m_lines.clear();
        m_level = level;
        m_notes = notes;
    }

    /// Notes "+name" and "-name" when `mutex` is locked and unlocked (OsSeams.cpp does it), and no
    /// other one under that name; null ends it. `name` is one of kWatched.
    static constexpr std::array<const char*, 4> kWatched = {"cfg", "map", "dev", "instance"};
    void Watch(std::string_view name, const void* mutex) {
        for (size_t i = 0; i < kWatched.size(); ++i)
            if (name == kWatched[i])
                m_watched[i] = mutex;
    }
    void NoteIfWatched(char sign, const void* mutex) {
        for (size_t i = 0; i < kWatched.size(); ++i)
            if (m_watched[i] == mutex)
                Note(std::string(1, sign) + kWatched[i]);
    }

    void Note(std::string text) {
        if (m_notes)
            Keep({kNote, "", std::move(text)});
    }

    /// Everything in order; messages as "[level] text".
    std::vector<std::string> Events() const {
        return Collect([](const Line&) { return true; },
                       [](const Line& line) {
                           return line.level == kNote
                                      ? line.text
                                      : "[" + std::to_string(line.level) + "] " + line.text;
                       });
    }
    /// The texts of exactly this level, in order.
    std::vector<std::string> Texts(int level) const {
        return Collect([level](const Line& line) { return line.level == level; },
                       [](const Line& line) { return line.text; });
    }
    /// The signatures that the messages carry, in order.
    std::vector<std::string> Functions() const {
        return Collect([](const Line& line) { return line.level != kNote; },
                       [](const Line& line) { return line.function; });
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
        Keep({level, function, text});
    }
    int GetDebugLevel() override { return m_level; }

  private:
    static constexpr int kNote = 99;
    struct Line {
        int level;
        std::string function;
        std::string text;
    };
    template <typename Wanted, typename Text>
    std::vector<std::string> Collect(Wanted wanted, Text text) const {
        MutexGuard guard(m_mutex);
        std::vector<std::string> texts;
        for (const Line& line : m_lines)
            if (wanted(line))
                texts.push_back(text(line));
        return texts;
    }
    void Keep(Line line) {
        MutexGuard guard(m_mutex);
        m_lines.push_back(std::move(line));
    }

    std::atomic<int> m_level{-1};
    std::atomic<bool> m_notes{true};
    mutable Mutex m_mutex;
    std::vector<Line> m_lines MO_GUARDED_BY(m_mutex);
    std::array<std::atomic<const void*>, kWatched.size()> m_watched{};
};
