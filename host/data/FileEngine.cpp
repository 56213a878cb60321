#include "host/data/FileEngine.h"

#include <algorithm>
#include <cerrno>
#include <climits>

std::unique_ptr<FileEngine> FileEngine::Make(BackingFile& file, bool durable, Transfers& transfers,
                                             const FileQueueMaker& makeQueue, std::string& error) {
    std::unique_ptr<FileEngine> engine(new FileEngine(durable, transfers));
    engine->m_queue = makeQueue(
        file.Fd(),
        [&engine = *engine](Ticket ticket, int64_t result) { engine.OnEnded(ticket, result); },
        error);
    if (!engine->m_queue)
        return nullptr;
    engine->m_file = std::move(file);
    return engine;
}

void FileEngine::Start(Transfer& transfer) {
    if (transfer.wanted == 0) {
        m_transfers.Finish(transfer.ticket, 0);
        return;
    }
    m_mutex.lock();
    // Looked at under the mutex: an Abort that comes later finds the transfer in the list.
    const int64_t refusal = transfer.Refusal();
    const bool submit = refusal == 0 && m_running < m_queue->Depth();
    const bool tell = refusal == 0 && !submit && !m_watched;
    if (submit) {
        BeginLocked(transfer);
    } else if (refusal == 0) {
        m_transfers.LimitWait(transfer);
        m_waiting.push_back(&transfer);
        m_watched = true;
    }
    m_mutex.unlock();
    if (refusal != 0)
        m_transfers.Finish(transfer.ticket, refusal);
    else if (submit)
        Submit(transfer);
    else if (tell)
        m_onWaiting();
}

void FileEngine::BeginLocked(Transfer& transfer) {
    ++m_running;
    transfer.syncFailures = m_syncFailures;
    transfer.ownSync = false;
    if (transfer.write) {
        transfer.ownSync = m_durable && m_writing == 0 && !m_syncRuns;
        m_syncRuns |= transfer.ownSync;
        ++m_writing;
    }
}

void FileEngine::Submit(const Transfer& transfer) {
    FileRequest request;
    request.kind = transfer.write ? FileRequest::Kind::Write : FileRequest::Kind::Read;
    request.iov = transfer.iov.data() + transfer.firstBuffer;
    request.count =
        static_cast<int>(std::min<size_t>(transfer.iov.size() - transfer.firstBuffer, IOV_MAX));
    request.offset = transfer.offset + transfer.done;
    request.flags = transfer.ownSync ? RWF_DSYNC : 0;
    request.ticket = transfer.ticket;
    m_queue->Submit(request);
}

void FileEngine::SubmitSync() {
    FileRequest request;
    request.kind = FileRequest::Kind::Sync;
    request.ticket = kSyncTicket;
    m_queue->Submit(request);
}

void FileEngine::OnEnded(Ticket ticket, int64_t result) {
    // The kernel cancels the requests of a thread that ends, as a device's thread may: they go on
    // from here.
    const bool again = result == -EINTR || result == -ECANCELED;
    if (ticket == kSyncTicket) {
        if (again)
            SubmitSync();
        else
            OnSynced(result);
        return;
    }
    Transfer* const transfer = m_transfers.Find(ticket);
    if (transfer == nullptr) {
        m_transfers.Finish(ticket, result);  // counts and logs it
        return;
    }
    if (result > 0)
        transfer->Advance(result);
    if (again || (result > 0 && transfer->done < transfer->wanted))
        Submit(*transfer);
    else
        OnMoved(*transfer, std::min<int64_t>(result, 0));
}

void FileEngine::OnMoved(Transfer& transfer, int64_t error) {
    const int64_t result = transfer.done == 0 ? error : static_cast<int64_t>(transfer.done);
    const bool sync = m_durable && transfer.write && !transfer.ownSync && result > 0;
    std::vector<Refused> refused;
    m_mutex.lock();
    --m_running;
    if (transfer.write)
        --m_writing;
    if (transfer.ownSync) {
        m_syncRuns = false;
        if (error < 0)
            ++m_syncFailures;  // it may have been its sync
    }
    if (sync)
        m_unsynced.push_back({&transfer, result});
    // Before the next begins: it would carry its own sync beside this one.
    const bool startSync = TakeSyncLocked();
    Transfer* const next = TakeNextLocked(refused);
    m_mutex.unlock();
    if (!sync)
        m_transfers.Finish(transfer.ticket, result);
    if (startSync)
        SubmitSync();
    if (next != nullptr)
        Submit(*next);
    Finish(refused);
}

Transfer* FileEngine::TakeNextLocked(std::vector<Refused>& refused) {
    while (!m_waiting.empty()) {
        Transfer* const next = m_waiting.front();
        m_waiting.pop_front();
        const int64_t refusal = next->Refusal();
        if (refusal == 0) {
            BeginLocked(*next);
            return next;
        }
        refused.push_back({next->ticket, refusal});
    }
    return nullptr;
}

void FileEngine::Finish(const std::vector<Refused>& refused) {
    for (const Refused& each : refused)
        m_transfers.Finish(each.ticket, each.result);
}

bool FileEngine::TakeSyncLocked() {
    if (m_syncRuns || m_unsynced.empty())
        return false;
    m_syncRuns = true;
    m_syncing.swap(m_unsynced);
    return true;
}

void FileEngine::OnSynced(int64_t result) {
    std::vector<Written> synced;
    m_mutex.lock();
    if (result < 0)
        ++m_syncFailures;
    synced.swap(m_syncing);
    for (Written& each : synced) {
        if (each.transfer->syncFailures != m_syncFailures)
            each.result = -EIO;
    }
    m_syncRuns = false;
    const bool startSync = TakeSyncLocked();
    m_mutex.unlock();
    if (startSync)
        SubmitSync();
    for (const Written& each : synced)
        m_transfers.Finish(each.transfer->ticket, each.result);
}

Transfer::Clock::time_point FileEngine::EndRefused() {
    std::vector<Refused> refused;
    auto next = Transfer::Clock::time_point::max();
    {
        const MutexGuard guard(m_mutex);
        std::erase_if(m_waiting, [&](const Transfer* each) {
            const int64_t refusal = each->Refusal();
            if (refusal != 0)
                refused.push_back({each->ticket, refusal});
            else
                next = std::min(next, each->beginBefore);
            return refusal != 0;
        });
        m_watched = !m_waiting.empty();
    }
    Finish(refused);
    return next;
}
