#pragma once

#include <chrono>
#include <condition_variable>
#include <string>
#include <thread>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/DataEngine.h"
#include "host/data/TransferList.h"

/// Where transfers wait for their begin: delayed and held ones, and writes behind others on the
/// same bytes (WriteOrder). Its thread begins them, and ends those here and in the engine that are
/// aborted or that the kernel is about to give up: Abort itself may not call IODone, and with a
/// disk that is stuck nobody else comes by.
///
/// A transfer is here or in the engine, never in both, so whoever takes it out of its list alone
/// decides whether it begins or ends; the clock is asked then, for each anew.
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

    /// Hands it to the engine when the writes before it have ended. Thread: any.
    void AwaitOrder(Transfer& transfer) MO_EXCLUDES(m_mutex);

    /// Looks, soon and on this object's thread, at all that waits here and in the engine, and ends
    /// what is refused by now. Thread: any, other objects' mutexes held or not.
    void Look() MO_EXCLUDES(m_mutex);

    /// Ends the thread. Requires: no transfer waits. May be called again.
    void Stop() MO_EXCLUDES(m_mutex);

  private:
    using Clock = Transfer::Clock;

    struct Waiting {
        Transfer* transfer;
        Clock::time_point due;
        std::string whileFile;  ///< empty, or no more there: `due` counts
    };

    void Add(Waiting waiting) MO_EXCLUDES(m_mutex);
    void Run() MO_EXCLUDES(m_mutex);
    /// Takes out what may begin or is refused. Returns: when to look again.
    Clock::time_point TakeReadyLocked(TransferList& ready) MO_REQUIRES(m_mutex);

    Transfers& m_transfers;
    DataEngine& m_engine;

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::vector<Waiting> m_waiting MO_GUARDED_BY(m_mutex);
    bool m_look MO_GUARDED_BY(m_mutex) = false;
    bool m_stop MO_GUARDED_BY(m_mutex) = false;

    std::thread m_thread;  ///< last: it uses everything above
};
