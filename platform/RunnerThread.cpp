#include "platform/RunnerThread.h"

#include <array>
#include <csignal>
#include <cstring>
#include <string>

#include "framework/MOPlatformInfo.h"
#include "runner/tcmu_runner.h"
#include "util/Log.h"

void* TcmuRunerThread(void* /*arg*/) {
    MO_TRACE(kTraceDetail);
    std::string baseDirectory;
    if (MOPlatformInfo::getString("Base", "dBASEHOME", &baseDirectory) == 0)
        MO_LOG(kLogError, "couldn't get MOPI_BASEHOME");  // the runner gets an empty path

    const std::string option = "--handler-path=" + baseDirectory;
    // Copies that are never freed: the runner keeps them.
    std::array<char*, 3> argv{strdup("tcmu_runner_main"), strdup(option.c_str()), nullptr};
    MO_LOG(kLogProgress, "starting tcmu_runner main %s", option.c_str());
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): kept, see above
    if (tcmu_runner_main(2, argv.data()) != 0)
        MO_LOG(kLogError, "tcmu not initialized %s", option.c_str());
    return nullptr;
}

bool StartRunnerThread(pthread_t& thread) {
    sigset_t interrupt;
    sigset_t callers;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &callers);
    const int result = pthread_create(&thread, nullptr, TcmuRunerThread, nullptr);
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    return result == 0;
}
