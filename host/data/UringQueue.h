#pragma once

#include <liburing.h>

#include <atomic>
#include <thread>

#include "framework/Mutex.h"
#include "host/data/FileQueue.h"

/// One io_uring for one file. The thread that calls Submit enters the kernel itself; one thread of
/// the queue's own takes what ended. Without a kernel polling thread: it costs a core.
class UringQueue : public FileQueue {
  public:
    static std::unique_ptr<FileQueue> Make(int fd, Ended ended, std::string& error);
    ~UringQueue() override;

    const char* Name() const override { return "io_uring"; }
    size_t Depth() const override { return kDepth; }
    void Submit(const FileRequest& request) override MO_EXCLUDES(m_submitMutex);
    void Stop() override MO_EXCLUDES(m_submitMutex);

  private:
    static constexpr unsigned kDepth = 256;

    UringQueue(int fd, Ended ended) : m_fd(fd), m_ended(std::move(ended)) {}

    void Run();
    int EnterLocked(io_uring_sqe* entry) MO_REQUIRES(m_submitMutex);

    const int m_fd;
    const Ended m_ended;

    Mutex m_submitMutex;  ///< the ring's submission side; the completion side is the thread's
    io_uring m_ring = {};
    /// Orders what was written before a Submit before what reads it after the request's end. The
    /// kernel does so too, where neither the language nor ThreadSanitizer can see it.
    std::atomic<uint64_t> m_submitted{0};
    bool m_made = false;
    std::thread m_thread;
};
