// The operating system's calls of the plug-in, watched; PlatformFixture.h says how.

#include <sys/stat.h>

#include <csignal>

#include "runner/Runner.h"
#include "tests/support/PlatformFixture.h"

const char* const kFakeTargetcliPath = FAKE_TARGETCLI_PATH;

static bool Fails(OsSeams::Call call) {
    auto& plan = g_os.fail[call];
    if (plan.nth == 0 || --plan.nth != 0)
        return false;
    errno = plan.error;
    return true;
}

static void Note(const std::string& text) {
    CapturingLogWriter::Installed().Note(text);
}

int tcmu_runner_main(int argc, char** argv) {
    // As the real one does, to the end of the process: nobody else holds the strings.
    static auto& kept = *new std::vector<char*>;
    kept.insert(kept.end(), argv, argv + argc);

    g_runner.arguments.assign(argv, argv + argc);
    EXPECT_EQ(argv[argc], nullptr);
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    EXPECT_GT(sigismember(&blocked, SIGINT), sigismember(&blocked, SIGTERM));
    int signal = 0;
    if (g_runner.waitForInterrupt)
        sigwait(&blocked, &signal);
    g_runner.interrupted = signal == SIGINT;
    return g_runner.result;
}

// Visible, because a sanitizer's library that calls one of these is linked against it too.
#pragma GCC visibility push(default)
extern "C" {

FILE* __real_popen(const char* command, const char* mode);
FILE* __wrap_popen(const char* command, const char* mode) {
    Note(std::string("$ ") + command);
    return Fails(OsSeams::kPopen) ? nullptr : __real_popen(command, mode);
}

int __real_stat64(const char* path, struct stat64* status);
int __wrap_stat64(const char* path, struct stat64* status) {
    mode_t mode = 0;
    const int answer = g_os.onStat ? g_os.onStat(path, mode) : -1;
    if (answer < 0)
        return __real_stat64(path, status);
    *status = {};
    status->st_mode = mode;
    if (answer > 0)
        errno = answer;
    return answer == 0 ? 0 : -1;
}

int __real_close(int fd);
int __wrap_close(int fd) {
    const int result = __real_close(fd);
    return Fails(OsSeams::kClose) ? -1 : result;
}

int __real_system(const char* command);
int __wrap_system(const char* command) {
    Note(std::string("$ ") + command);
    if (Fails(OsSeams::kSystem))
        return errno;
    if (g_os.beforeSystem)
        g_os.beforeSystem(command);
    return __real_system(command);
}

int __wrap_nanosleep(const timespec* time, timespec* /*rest*/) {
    Note("sleep " + std::to_string(time->tv_sec) + "." + std::to_string(time->tv_nsec));
    g_os.onSleep();
    return 0;
}

// The constructor of a trace, by its linker's name: the writer is passed by its address.
using MakeTrace = void(void* trace, void* writer, int kind, const char* function, int line,
                       int level, int reserved, unsigned mask, const char* text);
MakeTrace MO_REAL_TRACE;
void MO_WRAP_TRACE(void* trace, void* writer, int kind, const char* function, int line, int level,
                   int reserved, unsigned mask, const char* text) {
    EXPECT_TRUE(kind == 2 && line > 0 && reserved == 0 && mask == 0xFFFFFFFF && text == nullptr);
    MO_REAL_TRACE(trace, writer, kind, function, line, level, reserved, mask, text);
}

decltype(pthread_create) __real_pthread_create;
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes,
                          void* (*entry)(void*), void* argument) {
    Note("thread");
    if (Fails(OsSeams::kThreadCreate))
        return EAGAIN;  // errno is what the test said: they differ on purpose
    return __real_pthread_create(thread, attributes, entry, argument);
}

int __real_pthread_kill(pthread_t thread, int signal);
int __wrap_pthread_kill(pthread_t thread, int signal) {
    Note("signal " + std::to_string(signal));
    return __real_pthread_kill(thread, signal);
}

int __real_pthread_mutex_lock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_lock(pthread_mutex_t* mutex) {
    const int result = __real_pthread_mutex_lock(mutex);
    CapturingLogWriter::Installed().NoteIfWatched('+', mutex);
    return result;
}

int __real_pthread_mutex_unlock(pthread_mutex_t* mutex);
int __wrap_pthread_mutex_unlock(pthread_mutex_t* mutex) {
    CapturingLogWriter::Installed().NoteIfWatched('-', mutex);
    return __real_pthread_mutex_unlock(mutex);
}

}  // extern "C"
#pragma GCC visibility pop
