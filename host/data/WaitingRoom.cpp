#include "host/data/WaitingRoom.h"

#include <algorithm>
#include <cerrno>

#include "host/data/FaultInjector.h"

namespace {

// Held transfers look for their file this often; only while some are held.
constexpr std::chrono::milliseconds kFileLookInterval{20};

}  // namespace

WaitingRoom::WaitingRoom(Transfers& transfers, DataEngine& engine)
    : m_transfers(transfers), m_engine(engine), m_thread([this] { Run(); }) {}

void WaitingRoom::Delay(Transfer& transfer, std::chrono::milliseconds time) {
    Add({&transfer, Clock::now() + time, {}});
}

void WaitingRoom::HoldWhile(Transfer& transfer, const std::string& path) {
    Add({&transfer, {}, path});
}

void WaitingRoom::Add(Waiting waiting) {
    const MutexGuard guard(m_mutex);
    m_waiting.push_back(std::move(waiting));
    m_look = true;
    m_changed.notify_one();
}

void WaitingRoom::CancelAborted() {
    const MutexGuard guard(m_mutex);
    m_look = true;
    m_cancel = true;
    m_changed.notify_one();
}

void WaitingRoom::Stop() {
    {
        const MutexGuard guard(m_mutex);
        m_stop = true;
        m_changed.notify_one();
    }
    if (m_thread.joinable())
        m_thread.join();
}

void WaitingRoom::TakeReadyLocked(std::vector<Transfer*>& ready) {
    const Clock::time_point now = Clock::now();
    std::erase_if(m_waiting, [&](const Waiting& each) {
        const bool over = each.whileFile.empty() ? each.due <= now : !FileExists(each.whileFile);
        if (!over && !each.transfer->aborted)
            return false;
        ready.push_back(each.transfer);
        return true;
    });
}

WaitingRoom::Clock::time_point WaitingRoom::NextLookLocked() const {
    Clock::time_point next = Clock::time_point::max();
    for (const Waiting& each : m_waiting)
        next = std::min(next, each.whileFile.empty() ? each.due : Clock::now() + kFileLookInterval);
    return next;
}

void WaitingRoom::Run() {
    std::vector<Transfer*> ready;
    m_mutex.lock();
    while (!m_stop) {
        m_look = false;
        const bool cancel = m_cancel;
        m_cancel = false;
        TakeReadyLocked(ready);
        m_mutex.unlock();
        for (Transfer* transfer : ready) {
            if (transfer->aborted)
                m_transfers.Finish(transfer->ticket, -ECANCELED);
            else
                m_engine.Start(*transfer);
        }
        ready.clear();
        if (cancel)
            m_engine.CancelAborted();
        m_mutex.lock();
        const Clock::time_point next = NextLookLocked();
        while (!m_look && !m_stop && Clock::now() < next) {
            if (next == Clock::time_point::max())
                m_changed.wait(m_mutex);
            else
                m_changed.wait_until(m_mutex, next);
        }
    }
    m_mutex.unlock();
}
