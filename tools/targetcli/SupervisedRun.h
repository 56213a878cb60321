#pragma once

#include <sys/types.h>

#include <string>

#include "tools/targetcli/ChildOutput.h"
#include "tools/targetcli/ChildProcess.h"
#include "tools/targetcli/Interrupts.h"
#include "tools/targetcli/TimeLimit.h"

/// Runs one program to its end and passes on what it prints, within the wrapper's limits. A program
/// that waits for targetcli's lock is told from one that works, and one that can't be ended because
/// it hangs in the kernel is left behind: the caller always gets its answer.
///
/// Threads: used by one thread.

struct Outcome {
    /// What the wrapper exits with: the program's status; 128 and the signal that ended it or asked
    /// the wrapper to end; 124 after a limit; 126 when the program couldn't be started.
    int status = 0;
    /// One line that says why the program didn't come to an end of its own; empty when it did.
    std::string complaint;

    bool Succeeded() const { return status == 0; }
};

constexpr int kStatusLimit = 124;
constexpr int kStatusNotStarted = 126;

/// Runs `command`; `out` and `err` are fresh. Returns when the program has ended and both streams
/// are relayed, or at a limit, or at a signal.
Outcome RunSupervised(const Command& command, ChildOutput& out, ChildOutput& err, TimeLimit& limit,
                      const Interrupts& interrupts);

/// What a program that failed said about it: the complaint, or its last line on standard error, or
/// on standard output, or its status. One line.
std::string ReasonOf(const Outcome& outcome, const ChildOutput& out, const ChildOutput& err);
