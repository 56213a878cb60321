#include "runner/ServiceThread.h"

#include <pthread.h>
#include <sys/eventfd.h>

#include <cerrno>
#include <system_error>

#include "framework/ExceptionOf.h"
#include "util/Log.h"

ServiceThread::~ServiceThread() {
    End();
}

void ServiceThread::Start(const char* name, std::function<void()> body) {
    m_end = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_end.Valid())
        throw std::system_error(errno, std::generic_category(), "eventfd");
    m_thread = std::thread([this, name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        if (const auto fault = ExceptionOf(body))
            MO_LOG(kLogError, "TCMU runner: the thread %s ended: %s", name, fault->c_str());
        m_done.set_value();
    });
}

void ServiceThread::End() {
    if (!m_thread.joinable())
        return;
    TellToEnd();
    m_thread.join();
}

bool ServiceThread::EndBy(Clock::time_point deadline) {
    if (!m_thread.joinable())
        return true;
    TellToEnd();
    if (m_whenDone.wait_until(deadline) != std::future_status::ready)
        return false;
    m_thread.join();
    return true;
}

void ServiceThread::TellToEnd() {
    m_ending.store(true, std::memory_order_relaxed);
    eventfd_write(m_end.Get(), 1);
}
