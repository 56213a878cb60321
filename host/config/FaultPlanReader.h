#pragma once

#include <string>
#include <toml.hpp>

#include "host/config/Problems.h"
#include "host/data/FaultPlan.h"

/// Reads a LUN's `faults` table (docs/fault-injection.md); `file` is its file's name in messages.
/// Returns: what could be read; it is complete only when `problems` got nothing.
FaultPlan ReadFaultPlan(const toml::value& table, const std::string& file, Problems& problems);
