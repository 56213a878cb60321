#pragma once

#include <cstdint>
#include <functional>
#include <optional>

#include "host/kernel/ConfigfsView.h"
#include "host/plan/Plan.h"

/// A LUN's number, where there is one.
using NumberOfLun = std::function<std::optional<uint32_t>(const LunPlan&)>;

/// The number that an automatic LUN takes while others of its target stay out: the lowest that is
/// free and isn't theirs. `former` knows which number a LUN had when it was last served, `given`
/// which it has got by now.
/// Returns: nothing when none stays out; the platform chooses then. Thread: any.
std::optional<uint32_t> LowestFreeNumber(const TargetPlan& target, const ConfigfsView& before,
                                         const NumberOfLun& former, const NumberOfLun& given);
