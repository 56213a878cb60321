#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <functional>
#include <thread>

#include "framework/Mutex.h"

/// SIGINT, SIGTERM and SIGHUP, and the time that is left once one has come. A SIGHUP that is
/// ignored (nohup) stays so.

/// Takes the three signals from the process's queue on a thread of its own, so that one that comes
/// while a configuration step runs is acted on at once: the step's targetcli gets a time limit
/// (RUN/targetcli/limit), and a second signal makes that, and everything else, short.
///
/// Signals directed at another thread stay there: the plug-in's runner is interrupted so.
class StopSignals {
  public:
    /// Blocks the signals in the calling thread, hence in every thread made later. To be called
    /// before any other thread exists.
    static void Block();

    /// Starts to take them. `allowance` is what a stop may take, its last ten seconds for the
    /// plug-in's runner. `overdue` is called on the thread of the signals when a stop takes longer:
    /// a delete waits without limit for a device that doesn't close.
    StopSignals(const std::filesystem::path& runDirectory, std::chrono::seconds allowance,
                std::function<void()> overdue);
    ~StopSignals() { End(); }
    StopSignals(const StopSignals&) = delete;
    StopSignals& operator=(const StopSignals&) = delete;

    /// Thread: any.
    bool Asked() const { return m_asked; }

    /// Begins a stop without a signal, with the same allowance. Thread: any.
    void Begin() MO_EXCLUDES(m_mutex);

    /// Waits for the first signal. Thread: any.
    void Wait() MO_EXCLUDES(m_mutex);

    /// True when it is too late for another step of a stop. Otherwise the running time limit of
    /// targetcli is brought up to date: call it before each step of a stop. Thread: any.
    bool OutOfTime() MO_EXCLUDES(m_mutex);

    /// Ends the thread, and targetcli's time limit with it. May be called again.
    void End();

    /// Ends targetcli's time limit only. Thread: any.
    void EndLimit();

  private:
    using Clock = std::chrono::steady_clock;

    void Run() MO_EXCLUDES(m_mutex);
    void Take() MO_EXCLUDES(m_mutex);
    std::chrono::nanoseconds UntilOverdue() MO_EXCLUDES(m_mutex);
    void BeginLocked() MO_REQUIRES(m_mutex);
    void LimitTargetcli(std::chrono::seconds seconds);

    const std::filesystem::path m_limitFile;
    const std::chrono::seconds m_allowance;
    const std::function<void()> m_overdue;
    std::atomic<bool> m_asked{false};
    std::atomic<bool> m_ending{false};
    Mutex m_mutex;
    std::condition_variable_any m_change;
    bool m_begun MO_GUARDED_BY(m_mutex) = false;
    Clock::time_point m_deadline MO_GUARDED_BY(m_mutex);  // of the last step's begin
    Clock::time_point m_end MO_GUARDED_BY(m_mutex);       // of the process
    std::thread m_thread;                                 // last: it uses the others
};
