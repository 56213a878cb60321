#pragma once

#include <string>
#include <vector>

#include "host/plan/Plan.h"
#include "host/service/Console.h"
#include "host/service/Environment.h"

/// What `create` is asked for.
struct CreateOptions {
    std::vector<std::string> luns;  ///< names; TARGET/NAME where several targets have the name
    bool anew = false;              ///< also those that were made or served here before
};

/// Makes the named LUNs' backing files, empty, and says what it made. A file that is there is left
/// alone and refused, and so is a LUN that was made or served here before, without `anew`: its file
/// may only be out of sight. All files or none are made.
/// Returns: the process's exit status. Thread: any.
int CreateFiles(const Plan& plan, const Environment& environment, const CreateOptions& options,
                Console& console);
