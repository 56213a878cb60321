#pragma once

#include <atomic>
#include <string>
#include <vector>

/// Stands in for the TCMU runner's main loop: FakeRunner.cpp defines tcmu_runner_main.
struct FakeRunner {
    // ---- Set before the runner's thread starts
    // ---------------------------------------------------
    int result = 0;                 ///< what the main loop returns
    bool waitForInterrupt = false;  ///< return after a SIGINT (or ten seconds), not at once

    // ---- Valid once the thread was joined
    // --------------------------------------------------------
    std::vector<std::string> arguments;
    bool endsInNull = false;
    bool interruptBlocked = false;
    bool interrupted = false;

    static FakeRunner& The();
    /// As after the start of the process.
    void Reset() { *this = FakeRunner(); }
};
