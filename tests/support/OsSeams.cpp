#include "tests/support/OsSeams.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <ctime>

#include "tests/support/CapturingLogWriter.h"

namespace os_seams {

std::function<int(const std::string&, mode_t&)> onStat;
std::function<void(const std::string&)> beforeSystem;
std::function<void()> onSleep;
std::function<void()> onThreadCreate;

namespace {

struct Plan {
    std::atomic<int> count;
    std::atomic<int> failAt;
    std::atomic<int> error;
};
Plan g_plans[kCalls];
std::atomic<const void*> g_attempted;
std::atomic<int> g_attempts;
std::atomic<int> g_openPipes;

bool Fails(Call call) {
    Plan& plan = g_plans[call];
    if (++plan.count != plan.failAt)
        return false;
    errno = plan.error;
    return true;
}

}  // namespace

void Reset() {
    for (Plan& plan : g_plans)
        plan.count = plan.failAt = 0;
    g_attempted = nullptr;
    onStat = nullptr;
    beforeSystem = nullptr;
    onSleep = onThreadCreate = nullptr;
}

void FailAt(Call call, int nth, int error) {
    g_plans[call].error = error;
    g_plans[call].failAt = g_plans[call].count + nth;
}

int Count(Call call) {
    return g_plans[call].count;
}

int OpenPipes() {
    return g_openPipes;
}

int LockAttempts(const void* mutex) {
    if (g_attempted.exchange(mutex) != mutex)
        g_attempts = 0;
    return g_attempts;
}

}  // namespace os_seams

using namespace os_seams;

// Visible, because a sanitizer's library that calls one of these is linked against it too.
#pragma GCC visibility push(default)
extern "C" {

FILE* __real_popen(const char* command, const char* mode);
FILE* __wrap_popen(const char* command, const char* mode) {
    CapturingLogWriter::Installed().Note(std::string("$ ") + command);
    FILE* const pipe = Fails(kPopen) ? nullptr : __real_popen(command, mode);
    g_openPipes += pipe != nullptr ? 1 : 0;
    return pipe;
}

int __real_pclose(FILE* pipe);
int __wrap_pclose(FILE* pipe) {
    --g_openPipes;
    return __real_pclose(pipe);
}

int __real_stat64(const char* path, struct stat64* status);
int __wrap_stat64(const char* path, struct stat64* status) {
    mode_t mode = 0;
    const int answer = onStat ? onStat(path, mode) : -1;
    if (answer < 0)
        return __real_stat64(path, status);
    *status = {};
    status->st_mode = mode;
    if (answer > 0)
        errno = answer;
    return answer == 0 ? 0 : -1;
}

int __real_open64(const char* path, int flags, ...);
int __wrap_open64(const char* path, int flags, ...) {
    va_list args;
    va_start(args, flags);
    const mode_t mode = (flags & O_CREAT) != 0 ? va_arg(args, mode_t) : 0;
    va_end(args);
    return Fails(kOpen) ? -1 : __real_open64(path, flags, mode);
}

ssize_t __real_pwrite64(int fd, const void* data, size_t size, off64_t offset);
ssize_t __wrap_pwrite64(int fd, const void* data, size_t size, off64_t offset) {
    return Fails(kPwrite) ? -1 : __real_pwrite64(fd, data, size, offset);
}

int __real_close(int fd);
int __wrap_close(int fd) {
    const int result = __real_close(fd);
    return Fails(kClose) ? -1 : result;
}

int __real_system(const char* command);
int __wrap_system(const char* command) {
    CapturingLogWriter::Installed().Note(std::string("$ ") + command);
    if (Fails(kSystem))
        return 1 << 8;
    if (beforeSystem)
        beforeSystem(command);
    return __real_system(command);
}

int __real_nanosleep(const timespec* time, timespec* rest);
int __wrap_nanosleep(const timespec* time, timespec* rest) {
    if (!onSleep)
        return __real_nanosleep(time, rest);
    CapturingLogWriter::Installed().Note("sleep " + std::to_string(time->tv_sec) + "." +
                                         std::to_string(time->tv_nsec));
    onSleep();
    return 0;
}

int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    if (onThreadCreate)
        onThreadCreate();
    if (Fails(kThreadCreate))
        return EAGAIN;  // and errno is what FailAt was told: they differ on purpose
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __real_pthread_kill(pthread_t thread, int signal);
int __wrap_pthread_kill(pthread_t thread, int signal) {
    CapturingLogWriter::Installed().Note("signal " + std::to_string(signal));
    return __real_pthread_kill(thread, signal);
}

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    if (mutex == g_attempted)
        ++g_attempts;
    const int result = __real_pthread_mutex_lock(mutex);
    static CapturingLogWriter& journal = CapturingLogWriter::Installed();
    if (const char* name = journal.Watched(mutex))
        journal.Note(std::string("+") + name);
    return result;
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    static CapturingLogWriter& journal = CapturingLogWriter::Installed();
    if (const char* name = journal.Watched(mutex))
        journal.Note(std::string("-") + name);
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
#pragma GCC visibility pop
