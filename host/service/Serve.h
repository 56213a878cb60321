#pragma once

#include <optional>
#include <string>

#include "host/plan/Plan.h"
#include "host/service/Console.h"
#include "host/service/Environment.h"

struct ServeOptions {
    std::optional<int> logLevel;     ///< over the file's
    bool discardLostMemory = false;  ///< serve a memory LUN empty whose device outlived its data
};

/// The host's life: lock, plug-in, comparison, the plan carried out, comparison, "ready", a signal,
/// and everything down again. Returns: the process's exit status; 0 only when everything named by
/// the plan was served and is gone. The caller must end the process without running destructors of
/// static objects, its output flushed: the plug-in's threads aren't joined. Requires: called once,
/// in a process whose only thread is the caller's.
int Serve(const Plan& plan, const Config& config, const Environment& environment,
          const ServeOptions& options, Console& console);
