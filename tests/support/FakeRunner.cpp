#include "tests/support/FakeRunner.h"

#include <csignal>
#include <ctime>

#include "adapters/runner/tcmu_runner.h"

FakeRunner& FakeRunner::The() {
    static FakeRunner runner;
    return runner;
}

int tcmu_runner_main(int argc, char** argv) {
    // As the real one does, to the end of the process: nobody else holds the strings.
    static auto& kept = *new std::vector<char*>;
    kept.insert(kept.end(), argv, argv + argc);

    FakeRunner& runner = FakeRunner::The();
    runner.arguments.assign(argv, argv + argc);
    runner.endsInNull = argv[argc] == nullptr;
    sigset_t blocked;
    pthread_sigmask(SIG_SETMASK, nullptr, &blocked);
    runner.interruptBlocked = sigismember(&blocked, SIGINT) == 1;
    if (runner.waitForInterrupt) {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        const timespec limit = {10, 0};
        runner.interrupted = sigtimedwait(&interrupt, nullptr, &limit) == SIGINT;
    }
    return runner.result;
}
