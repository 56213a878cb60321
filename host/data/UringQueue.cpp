#include "host/data/UringQueue.h"

#include <cerrno>
#include <cstring>

#include "util/Log.h"

namespace {

// Tickets that no request has, like kSyncTicket.
constexpr uint64_t kStopMark = kSyncTicket - 1;
constexpr uint64_t kVoidMark = kSyncTicket - 2;

void Prepare(io_uring_sqe* entry, int fd, const FileRequest& request) {
    switch (request.kind) {
        case FileRequest::Kind::Read:
            io_uring_prep_readv2(entry, fd, request.iov, request.count, request.offset,
                                 request.flags);
            break;
        case FileRequest::Kind::Write:
            io_uring_prep_writev2(entry, fd, request.iov, request.count, request.offset,
                                  request.flags);
            break;
        case FileRequest::Kind::Sync:
            io_uring_prep_fsync(entry, fd, IORING_FSYNC_DATASYNC);
            break;
    }
    if (request.mayBlock)
        io_uring_sqe_set_flags(entry, IOSQE_ASYNC);
    io_uring_sqe_set_data64(entry, request.ticket);
}

}  // namespace

std::unique_ptr<FileQueue> UringQueue::Make(int fd, Ended ended, std::string& error) {
    std::unique_ptr<UringQueue> queue(new UringQueue(fd, std::move(ended)));
    const int result = io_uring_queue_init(kDepth + 1, &queue->m_ring, 0);
    if (result < 0) {
        error = strerror(-result);
        return nullptr;
    }
    queue->m_made = true;
    try {
        queue->m_thread = std::thread([&queue = *queue] { queue.Run(); });
    } catch (const std::system_error& fault) {
        error = NoThread(fault);
        return nullptr;
    }
    return queue;
}

UringQueue::~UringQueue() {
    UringQueue::Stop();
    if (m_made)
        io_uring_queue_exit(&m_ring);
}

void UringQueue::Submit(const FileRequest& request) {
    int result = 0;
    {
        const MutexGuard guard(m_submitMutex);
        // Never null: each entry was taken by the kernel before the mutex was released.
        io_uring_sqe* const entry = io_uring_get_sqe(&m_ring);
        Prepare(entry, m_fd, request);
        m_submitted.fetch_add(1, std::memory_order_release);
        result = EnterLocked(entry);
    }
    if (result < 0)
        m_ended(request.ticket, result);
}

int UringQueue::EnterLocked(io_uring_sqe* entry) {
    int result = 0;
    do {
        result = io_uring_submit(&m_ring);
    } while (result == -EINTR || result == -EAGAIN || result == -EBUSY);
    if (result >= 0)
        return 0;
    // The kernel didn't take the entry and will find it at the next call: by then it must not
    // point to buffers that went back.
    io_uring_prep_nop(entry);
    io_uring_sqe_set_data64(entry, kVoidMark);
    return result;
}

void UringQueue::Stop() {
    if (!m_thread.joinable())
        return;
    {
        const MutexGuard guard(m_submitMutex);
        io_uring_sqe* const entry = io_uring_get_sqe(&m_ring);
        io_uring_prep_nop(entry);
        io_uring_sqe_set_data64(entry, kStopMark);
        EnterLocked(entry);
    }
    m_thread.join();
}

void UringQueue::Run() {
    while (true) {
        io_uring_cqe* entry = nullptr;
        const int result = io_uring_wait_cqe(&m_ring, &entry);
        if (result == -EINTR || result == -EAGAIN)
            continue;
        if (result < 0) {
            MO_LOG(kLogError, "io_uring can't tell what ended: %s", strerror(-result));
            continue;
        }
        const uint64_t mark = io_uring_cqe_get_data64(entry);
        const int64_t moved = entry->res;
        io_uring_cqe_seen(&m_ring, entry);
        if (mark == kStopMark)
            return;
        m_submitted.load(std::memory_order_acquire);
        if (mark != kVoidMark)
            m_ended(mark, moved);
    }
}
