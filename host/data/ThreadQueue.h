#pragma once

#include <condition_variable>
#include <deque>
#include <thread>
#include <utility>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/FileQueue.h"

/// A few threads that block in the kernel, for where io_uring isn't allowed.
class ThreadQueue : public FileQueue {
  public:
    static std::unique_ptr<FileQueue> Make(int fd, Ended ended, std::string& error);
    ~ThreadQueue() override { Stop(); }
    ThreadQueue(const ThreadQueue&) = delete;
    ThreadQueue& operator=(const ThreadQueue&) = delete;

    const char* Name() const override { return "threads"; }
    size_t Depth() const override { return kThreads; }
    void Submit(const FileRequest& request) override MO_EXCLUDES(m_mutex);
    void Stop() override MO_EXCLUDES(m_mutex);

  private:
    static constexpr size_t kThreads = 8;

    ThreadQueue(int fd, Ended ended) : m_fd(fd), m_ended(std::move(ended)) {}

    void Run() MO_EXCLUDES(m_mutex);

    const int m_fd;
    const Ended m_ended;

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<FileRequest> m_requests MO_GUARDED_BY(m_mutex);
    bool m_stop MO_GUARDED_BY(m_mutex) = false;

    std::vector<std::thread> m_threads;
};
