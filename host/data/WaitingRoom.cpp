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

void WaitingRoom::AwaitOrder(Transfer& transfer) {
    Add({&transfer, {}, {}});
}

void WaitingRoom::Add(Waiting waiting) {
    m_transfers.LimitWait(*waiting.transfer);
    const MutexGuard guard(m_mutex);
    m_waiting.push_back(std::move(waiting));
    m_look = true;
    m_changed.notify_one();
}

void WaitingRoom::Look() {
    const MutexGuard guard(m_mutex);
    m_look = true;
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

WaitingRoom::Clock::time_point WaitingRoom::TakeReadyLocked(TransferList& ready) {
    Clock::time_point next = Clock::time_point::max();
    for (auto each = m_waiting.begin(); each != m_waiting.end();) {
        const Clock::time_point now = Clock::now();
        const bool held = !each->whileFile.empty() && FileExists(each->whileFile);
        if (!held)
            each->whileFile.clear();
        const bool mayBegin = !held && each->due <= now && each->transfer->order.MayBegin();
        if (mayBegin || each->transfer->Refusal() != 0) {
            ready.Add(*each->transfer);
            each = m_waiting.erase(each);
            continue;
        }
        next = std::min(next, each->transfer->beginBefore);
        if (held)
            next = std::min(next, now + kFileLookInterval);
        else if (each->due > now)
            next = std::min(next, each->due);
        ++each;
    }
    return next;
}

void WaitingRoom::Run() {
    TransferList ready;
    m_mutex.lock();
    while (!m_stop) {
        m_look = false;
        Clock::time_point next = TakeReadyLocked(ready);
        m_mutex.unlock();
        while (Transfer* const transfer = ready.Take()) {
            const int64_t refusal = transfer->Refusal();
            if (refusal != 0)
                m_transfers.Finish(transfer->ticket, refusal);
            else
                m_engine.Start(*transfer);
        }
        next = std::min(next, m_engine.EndRefused());
        m_mutex.lock();
        while (!m_look && !m_stop && Clock::now() < next) {
            if (next == Clock::time_point::max())
                m_changed.wait(m_mutex);
            else
                m_changed.wait_until(m_mutex, next);
        }
    }
    m_mutex.unlock();
}
