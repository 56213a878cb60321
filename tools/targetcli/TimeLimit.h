#pragma once

#include <chrono>
#include <filesystem>

#include "tools/targetcli/Settings.h"

/// How long one run of the wrapper may take: counted from the wrapper's start, over everything that
/// it runs. The host can shorten it for wrappers that are running already (when it stops): a number
/// of seconds in MOSCSI_RUN_DIR/targetcli/limit counts for every run for as long as the file is
/// there, and is looked at anew each time.
///
/// Threads: used by one thread.
class TimeLimit {
  public:
    using Clock = std::chrono::steady_clock;

    explicit TimeLimit(const Settings& settings)
        : m_start(Clock::now()),
          m_limit(settings.timeLimit),
          m_limitFile(settings.stateDir / "limit"),
          m_lockWait(settings.lockWait) {}

    /// The limit that holds now.
    std::chrono::seconds Limit() const;
    bool Expired() const { return Clock::now() - m_start >= Limit(); }

    /// Time goes by while one process keeps targetcli from its lock. A new holder has all of the
    /// time again: several runs may stand in a queue, and the limit of the run bounds them all.
    void AddLockWait(Clock::duration time) { m_lockWaited += time; }
    void RestartLockWait() { m_lockWaited = {}; }
    bool LockWaitExpired() const { return m_lockWaited >= m_lockWait; }
    std::chrono::seconds LockWaited() const {
        return std::chrono::duration_cast<std::chrono::seconds>(m_lockWaited);
    }

  private:
    const Clock::time_point m_start;
    const std::chrono::seconds m_limit;
    const std::filesystem::path m_limitFile;
    const std::chrono::seconds m_lockWait;
    Clock::duration m_lockWaited{};
};
