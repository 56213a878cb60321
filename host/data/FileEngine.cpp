#include "host/data/FileEngine.h"

#include <algorithm>
#include <cerrno>
#include <climits>

namespace moscsi::data {

FileEngine::FileEngine(bool durable, Transfers& transfers)
    : m_writeFlags(durable ? RWF_DSYNC : 0), m_transfers(transfers) {}

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
    const bool aborted = transfer.aborted;
    const bool submit = !aborted && m_running < m_queue->Depth();
    if (submit)
        ++m_running;
    else if (!aborted)
        m_waiting.push_back(&transfer);
    m_mutex.unlock();
    if (aborted)
        m_transfers.Finish(transfer.ticket, -ECANCELED);
    else if (submit)
        Submit(transfer);
}

void FileEngine::Submit(const Transfer& transfer) {
    FileRequest request;
    request.write = transfer.write;
    request.iov = transfer.iov.data() + transfer.firstBuffer;
    request.count =
        static_cast<int>(std::min<size_t>(transfer.iov.size() - transfer.firstBuffer, IOV_MAX));
    request.offset = transfer.offset + transfer.done;
    request.flags = transfer.write ? m_writeFlags : 0;
    request.ticket = transfer.ticket;
    m_queue->Submit(request);
}

void FileEngine::OnEnded(Ticket ticket, int64_t result) {
    Transfer* const transfer = m_transfers.Find(ticket);
    if (transfer == nullptr) {
        m_transfers.Finish(ticket, result);  // counts and logs it
        return;
    }
    // The kernel cancels the requests of a thread that ends, as a device's thread may: they go on
    // from here.
    if (result == -EINTR || result == -ECANCELED) {
        Submit(*transfer);
        return;
    }
    if (result > 0)
        transfer->Advance(result);
    const bool more = result > 0 && transfer->done < transfer->wanted;
    if (more)
        Submit(*transfer);
    else
        End(*transfer,
            result < 0 && transfer->done == 0 ? result : static_cast<int64_t>(transfer->done));
}

void FileEngine::End(Transfer& transfer, int64_t result) {
    Transfer* next = nullptr;
    m_mutex.lock();
    if (m_waiting.empty()) {
        --m_running;
    } else {
        next = m_waiting.front();
        m_waiting.pop_front();
    }
    m_mutex.unlock();
    m_transfers.Finish(transfer.ticket, result);
    if (next != nullptr)
        Submit(*next);
}

void FileEngine::CancelAborted() {
    std::vector<Ticket> cancelled;
    {
        const MutexGuard guard(m_mutex);
        std::erase_if(m_waiting, [&](const Transfer* each) {
            const bool aborted = each->aborted;
            if (aborted)
                cancelled.push_back(each->ticket);
            return aborted;
        });
    }
    for (const Ticket ticket : cancelled)
        m_transfers.Finish(ticket, -ECANCELED);
}

}  // namespace moscsi::data
