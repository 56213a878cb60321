#include "host/data/ThreadQueue.h"

#include <unistd.h>

#include <cerrno>
#include <new>

namespace {

int64_t Carry(int fd, const FileRequest& request) {
    const auto offset = static_cast<off_t>(request.offset);
    switch (request.kind) {
        case FileRequest::Kind::Read:
            return preadv2(fd, request.iov, request.count, offset, request.flags);
        case FileRequest::Kind::Write:
            return pwritev2(fd, request.iov, request.count, offset, request.flags);
        case FileRequest::Kind::Sync:
            return fdatasync(fd);
    }
    errno = EINVAL;
    return -1;
}

}  // namespace

std::unique_ptr<FileQueue> ThreadQueue::Make(int fd, Ended ended, std::string& error) {
    std::unique_ptr<ThreadQueue> queue(new ThreadQueue(fd, std::move(ended)));
    try {
        for (size_t i = 0; i < kThreads; ++i)
            queue->m_threads.emplace_back([&queue = *queue] { queue.Run(); });
    } catch (const std::system_error& fault) {
        error = NoThread(fault);
        return nullptr;  // its end joins those that run
    }
    return queue;
}

void ThreadQueue::Submit(const FileRequest& request) {
    try {
        const MutexGuard guard(m_mutex);
        m_requests.push_back(request);
        m_changed.notify_one();
        return;
    } catch (const std::bad_alloc&) {
        // told below, with no lock held
    }
    m_ended(request.ticket, -ENOMEM);
}

void ThreadQueue::Stop() {
    {
        const MutexGuard guard(m_mutex);
        m_stop = true;
        m_changed.notify_all();
    }
    for (std::thread& each : m_threads)
        each.join();
    m_threads.clear();
}

void ThreadQueue::Run() {
    m_mutex.lock();
    while (true) {
        while (m_requests.empty() && !m_stop)
            m_changed.wait(m_mutex);
        if (m_requests.empty())
            break;
        const FileRequest request = m_requests.front();
        m_requests.pop_front();
        m_mutex.unlock();
        const int64_t moved = Carry(m_fd, request);
        m_ended(request.ticket, moved < 0 ? -errno : moved);
        m_mutex.lock();
    }
    m_mutex.unlock();
}
