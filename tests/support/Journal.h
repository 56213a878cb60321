#pragma once

#include <string>
#include <utility>
#include <vector>

#include "adapters/framework/CLogWriterInterface.h"
#include "util/Mutex.h"

/// One ordered record of what the code under test does: the mutexes it takes and releases, the
/// commands it runs, its sleeps and signals (OsSeams.cpp reports those), and what it logs. An
/// operation can so be compared with a list, order and lock included.
///
/// Installed as the process's log writer. Fails the test when a message is written without asking
/// the level first.
///
/// Thread: any.
class Journal : public CLogWriterInterface {
  public:
    struct Message {
        int level;
        std::string function;
        std::string text;
    };

    static Journal& Installed();

    /// Forgets everything but the watched mutexes; messages above `level` are left out from now on.
    void Reset(int level);

    /// Reports "+name" and "-name" when `mutex` is locked and unlocked; null ends all watching.
    void Watch(const Mutex* mutex, const std::string& name);

    /// Adds an event.
    void Note(std::string event);

    /// Everything in order; messages as "[level] text".
    std::vector<std::string> Events() const;
    std::vector<Message> Messages() const;

    /// For the mutex seam: the name that `mutex` is watched under, or null.
    const char* Watched(const void* mutex) const;

    void WriteMessage(int level, const char* function, int line, int reserved1, int reserved2,
                      const char* format, ...) override __attribute__((format(printf, 7, 8)));
    int GetDebugLevel() override;

  private:
    static constexpr int kWatched = 4;

    mutable Mutex m_mutex;
    int m_level MO_GUARDED_BY(m_mutex) = -1;
    std::vector<std::string> m_events MO_GUARDED_BY(m_mutex);
    std::vector<Message> m_messages MO_GUARDED_BY(m_mutex);
    // Set while one thread runs, read by every lock of the process.
    std::pair<const void*, std::string> m_watched[kWatched];
    int m_watchedCount = 0;
};
