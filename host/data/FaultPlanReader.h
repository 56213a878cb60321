#pragma once

#include <string>
#include <toml.hpp>

#include "host/data/FaultPlan.h"

namespace moscsi::data {

struct FaultPlanResult {
    FaultPlan plan;
    std::string error;  ///< empty, or one line "FILE:LINE: what is wrong and what to write"
};

/// Reads a LUN's `faults` table (docs/fault-injection.md). Unknown keys are errors.
FaultPlanResult ParseFaultPlan(const toml::value& table);

}  // namespace moscsi::data
