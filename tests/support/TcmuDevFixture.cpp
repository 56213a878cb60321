#include "tests/support/TcmuDevFixture.h"

#include <pthread.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <thread>

#include "adapters/runner/tcmu_runner.h"

/// The platform object gets no runner (--wrap): devices come from the tests instead.
extern "C" int __wrap_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*) {
    return EAGAIN;
}
int tcmu_runner_main(int, char**) {
    return 0;
}

SleepHook& TheSleepHook() {
    static SleepHook hook;
    return hook;
}

/// Replaces nanosleep in this program (--wrap): no test waits, and what happens meanwhile is the
/// test's choice.
extern "C" int __wrap_nanosleep(const timespec* time, timespec*) {
    SleepHook& hook = TheSleepHook();
    hook.seconds.push_back(time->tv_nsec == 0 ? time->tv_sec : -1);
    if (!hook.instead || hook.seconds.size() > 10'000'000) {
        std::fputs("a close waits for a context that nobody gives back\n", stderr);
        std::abort();
    }
    hook.instead();
    return 0;
}

bool MoScsiSrvTcmuDevTest::MutexIsFree(MoScsiSrvTcmuDev& dev) {
    bool isFree = false;
    std::thread([&] {  // another thread: the holder itself must not try
        isFree = dev.m_mutex.try_lock();
        if (isFree)
            dev.m_mutex.unlock();
    })
        .join();
    return isFree;
}
