#include "tests/support/Journal.h"

#include <gtest/gtest.h>

#include <cstdarg>

#include "adapters/framework/FXString.h"

namespace {

thread_local bool t_levelAsked = false;

}  // namespace

Journal& Journal::Installed() {
    static const std::shared_ptr<Journal> journal = [] {
        auto made = std::make_shared<Journal>();
        g_ptrLogWriter = made;
        return made;
    }();
    return *journal;
}

void Journal::Reset(int level) {
    MutexGuard guard(m_mutex);
    m_level = level;
    m_events.clear();
    m_messages.clear();
}

void Journal::Watch(const Mutex* mutex, const std::string& name) {
    if (mutex == nullptr)
        m_watchedCount = 0;
    else
        m_watched[m_watchedCount++] = {mutex, name};
}

const char* Journal::Watched(const void* mutex) const {
    for (int i = 0; i < m_watchedCount; ++i) {
        if (m_watched[i].first == mutex)
            return m_watched[i].second.c_str();
    }
    return nullptr;
}

void Journal::Note(std::string event) {
    MutexGuard guard(m_mutex);
    m_events.push_back(std::move(event));
}

std::vector<std::string> Journal::Events() const {
    MutexGuard guard(m_mutex);
    return m_events;
}

std::vector<Journal::Message> Journal::Messages() const {
    MutexGuard guard(m_mutex);
    return m_messages;
}

void Journal::WriteMessage(int level, const char* function, int line, int reserved1, int reserved2,
                           const char* format, ...) {
    va_list args;
    va_start(args, format);
    const std::string text = FXString::FormatV(format, args);
    va_end(args);
    // The framework writes a trace's end without asking again.
    EXPECT_TRUE(t_levelAsked || text == "leave") << text;
    t_levelAsked = false;
    EXPECT_TRUE(line > 0 && reserved1 == 0 && reserved2 == 0) << text;
    MutexGuard guard(m_mutex);
    m_events.push_back("[" + std::to_string(level) + "] " + text);
    m_messages.push_back({level, function, text});
}

int Journal::GetDebugLevel() {
    t_levelAsked = true;
    MutexGuard guard(m_mutex);
    return m_level;
}
