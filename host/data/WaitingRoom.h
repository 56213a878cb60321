#pragma once

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/DataEngine.h"

/// Where delayed and held transfers wait for their begin, and the thread from which aborted ones
/// end: Abort itself may not call IODone.
class WaitingRoom {
  public:
    WaitingRoom(Transfers& transfers, DataEngine& engine);
    ~WaitingRoom() { Stop(); }
    WaitingRoom(const WaitingRoom&) = delete;
    WaitingRoom& operator=(const WaitingRoom&) = delete;

    /// Hands the transfer to the engine after a time. Thread: any.
    void Delay(Transfer& transfer, std::chrono::milliseconds time) MO_EXCLUDES(m_mutex);
    /// Hands it to the engine when no file is at `path` any more. Thread: any.
    void HoldWhile(Transfer& transfer, const std::string& path) MO_EXCLUDES(m_mutex);

    /// Ends with -ECANCELED what is marked as aborted, here and in the engine, soon and on this
    /// object's thread. Thread: any.
    void CancelAborted() MO_EXCLUDES(m_mutex);

    /// Ends the thread. Requires: no transfer waits. May be called again.
    void Stop() MO_EXCLUDES(m_mutex);

  private:
    using Clock = std::chrono::steady_clock;

    struct Waiting {
        Transfer* transfer;
        Clock::time_point due;
        std::string whileFile;  ///< empty: `due` counts
    };

    void Add(Waiting waiting) MO_EXCLUDES(m_mutex);
    void Run() MO_EXCLUDES(m_mutex);
    void TakeReadyLocked(std::vector<Transfer*>& ready) MO_REQUIRES(m_mutex);
    Clock::time_point NextLookLocked() const MO_REQUIRES(m_mutex);

    Transfers& m_transfers;
    DataEngine& m_engine;

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::vector<Waiting> m_waiting MO_GUARDED_BY(m_mutex);
    bool m_look MO_GUARDED_BY(m_mutex) = false;
    bool m_cancel MO_GUARDED_BY(m_mutex) = false;
    bool m_stop MO_GUARDED_BY(m_mutex) = false;

    std::thread m_thread;  ///< last: it uses everything above
};
