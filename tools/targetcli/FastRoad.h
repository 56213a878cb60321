#pragma once

#include <optional>
#include <string>
#include <vector>

#include "tools/targetcli/FastForms.h"
#include "tools/targetcli/Interrupts.h"
#include "tools/targetcli/Settings.h"
#include "tools/targetcli/SupervisedRun.h"
#include "tools/targetcli/TimeLimit.h"

/// A command that was carried out without the real targetcli, or tried to be.
struct FastRun {
    Outcome outcome;
    std::string out;
    std::string err;
};

/// Carries a command out in configfs when it is certain to end as with the real targetcli. A forked
/// child does all of it, under the limits and signals that targetcli is under, and holds
/// targetcli's lock; where it is killed or stays in the kernel, that is the command's outcome.
///
/// Returns: nothing when the real targetcli is to run; then nothing was changed, and no lock is
/// held. Notes either (RoadLog.h).
std::optional<FastRun> TakeFastRoad(const std::vector<std::string>& arguments,
                                    const Settings& settings, const std::string& real,
                                    TimeLimit& limit, const Interrupts& interrupts);
