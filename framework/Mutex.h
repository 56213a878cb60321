#pragma once

#include <mutex>

#include "framework/ThreadAnnotations.h"

/// std::mutex with the annotations that libstdc++'s lacks. Not recursive.
///
/// The plug-in locks and unlocks by explicit calls; layers and host use MutexGuard. It is a
/// BasicLockable: wait with std::condition_variable_any on the Mutex itself while it is held.
class MO_CAPABILITY("mutex") Mutex {
  public:
    void lock() MO_ACQUIRE() { m_mutex.lock(); }
    void unlock() MO_RELEASE() { m_mutex.unlock(); }

    // ---- For tests only
    bool try_lock() MO_TRY_ACQUIRE(true) { return m_mutex.try_lock(); }

  private:
    std::mutex m_mutex;
};

/// Holds a Mutex for a scope.
class MO_SCOPED_CAPABILITY MutexGuard {
  public:
    explicit MutexGuard(Mutex& mutex) MO_ACQUIRE(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexGuard() MO_RELEASE() { m_mutex.unlock(); }

    MutexGuard(const MutexGuard&) = delete;
    MutexGuard& operator=(const MutexGuard&) = delete;

  private:
    Mutex& m_mutex;
};
