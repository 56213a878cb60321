#pragma once

#include <string>
#include <vector>

#include "host/kernel/ConfigfsView.h"
#include "host/plan/Plan.h"

/// Compares configfs with the plan. Every line that comes back names one disagreement and what to
/// do about it. Pure functions; thread: any.

/// How the plug-in configures this machine, which decides what configfs has to look like.
struct Manner {
    bool userByConfigfs = false;  ///< user LUNs are made without targetcli (before 2.1.fb43)
    bool chosenSerials = true;    ///< file and block LUNs carry the plan's serials (from 2.1.fb43)

    /// From the version that targetcli answers; compared as text, as the plug-in does.
    static Manner Of(const std::string& version);
};

/// Before the first command: what is there already must be what the file names, and room for the
/// rest. What the file names and configfs lacks is no conflict.
std::vector<std::string> ConflictsBefore(const Plan& plan, const ConfigfsView& view,
                                         const Manner& manner);

/// After the last command: everything that the file names is there, and nothing more in its
/// targets.
std::vector<std::string> FaultsAfter(const Plan& plan, const ConfigfsView& view,
                                     const Manner& manner);

/// LUNs of the plan whose serials agree in their NAA digits with a device that isn't the plan's.
std::vector<std::string> NaaClashes(const Plan& plan, const ConfigfsView& view);

/// Objects that the plan names and that are in `view` but weren't in `before`, each with the
/// command that removes it: what a take-down couldn't take away.
std::vector<std::string> Leftovers(const Plan& plan, const ConfigfsView& before,
                                   const ConfigfsView& view);

/// User backstores of the plug-in's handler that the plan doesn't name: nobody serves them.
std::vector<std::string> Unserved(const Plan& plan, const ConfigfsView& view);
