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
        m_waiting.Add(transfer);
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
    transfer.mayBlock = false;
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
    request.mayBlock = transfer.mayBlock;
    request.ticket = transfer.ticket;
    m_queue->Submit(request);
}

void FileEngine::SubmitSync() {
    FileRequest request;
    request.kind = FileRequest::Kind::Sync;
    request.mayBlock = true;  // a sync always does
    request.ticket = kSyncTicket;
    m_queue->Submit(request);
}

void FileEngine::OnEnded(Ticket ticket, int64_t result) {
    // The kernel cancels the requests of a thread that ends, as a device's thread may: they go on
    // from here.
    bool again = result == -EINTR || result == -ECANCELED;
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
    // Some devices refuse what must not block, and io_uring may pass that on.
    if (result == -EAGAIN && !transfer->mayBlock)
        again = transfer->mayBlock = true;
    if (again || (result > 0 && transfer->done < transfer->wanted))
        Submit(*transfer);
    else
        OnMoved(*transfer, std::min<int64_t>(result, 0));
}

void FileEngine::OnMoved(Transfer& transfer, int64_t error) {
    transfer.result = transfer.done == 0 ? error : static_cast<int64_t>(transfer.done);
    transfer.failure = static_cast<int>(-error);
    const bool sync = m_durable && transfer.write && !transfer.ownSync && transfer.result > 0;
    TransferList refused;
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
        m_unsynced.Add(transfer);
    // Before the next begins: it would carry its own sync beside this one.
    const bool startSync = TakeSyncLocked();
    Transfer* const next = TakeNextLocked(refused);
    m_mutex.unlock();
    if (!sync)
        m_transfers.Finish(transfer.ticket, transfer.result);
    if (startSync)
        SubmitSync();
    if (next != nullptr)
        Submit(*next);
    Finish(std::move(refused));
}

Transfer* FileEngine::TakeNextLocked(TransferList& refused) {
    while (Transfer* const next = m_waiting.Take()) {
        next->result = next->Refusal();
        if (next->result == 0) {
            BeginLocked(*next);
            return next;
        }
        refused.Add(*next);
    }
    return nullptr;
}

void FileEngine::Finish(TransferList ended) {
    while (const Transfer* const each = ended.Take())
        m_transfers.Finish(each->ticket, each->result);
}

bool FileEngine::TakeSyncLocked() {
    if (m_syncRuns || m_unsynced.Empty())
        return false;
    m_syncRuns = true;
    m_syncing = std::move(m_unsynced);
    return true;
}

void FileEngine::OnSynced(int64_t result) {
    TransferList synced;
    m_mutex.lock();
    if (result < 0)
        ++m_syncFailures;
    while (Transfer* const each = m_syncing.Take()) {
        if (each->syncFailures != m_syncFailures)
            each->result = result < 0 ? result : -EIO;
        synced.Add(*each);
    }
    m_syncRuns = false;
    const bool startSync = TakeSyncLocked();
    m_mutex.unlock();
    if (startSync)
        SubmitSync();
    Finish(std::move(synced));
}

Transfer::Clock::time_point FileEngine::EndRefused() {
    TransferList refused;
    auto next = Transfer::Clock::time_point::max();
    {
        const MutexGuard guard(m_mutex);
        TransferList waiting = std::move(m_waiting);
        while (Transfer* const each = waiting.Take()) {
            each->result = each->Refusal();
            (each->result == 0 ? m_waiting : refused).Add(*each);
            if (each->result == 0)
                next = std::min(next, each->beginBefore);
        }
        m_watched = !m_waiting.Empty();
    }
    Finish(std::move(refused));
    return next;
}
