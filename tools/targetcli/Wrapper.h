#pragma once

#include <string>
#include <vector>

#include "tools/targetcli/Interrupts.h"

constexpr int kStatusNotFound = 127;
constexpr int kStatusUsage = 2;

/// The program as a whole: runs the real targetcli with unchanged arguments and adds what the
/// plug-in, which reads one line of its output and never its exit status, needs to be told the
/// truth.
///
/// A command line of the plug-in's that is certain to end as with the real one needs no run of it
/// (FastRoad.h).
///
///   arguments      what is added
///   --version      the older form of the version, or nothing at all (Version.h)
///   a user create  that fails: its cause on the first line (UserBackstoreCheck.h)
///   any            a line on standard error for each failure that has none; preferences of its own
///                  (Preferences.h); limits (SupervisedRun.h); the environment (ChildProcess.h)
///
/// Requires: descriptors 0, 1 and 2 are open, SIGPIPE is ignored, SIGCHLD is not.
/// Returns: the exit status.
int RunWrapper(const std::vector<std::string>& arguments, const Interrupts& interrupts);
