#pragma once

#include <memory>

#include "framework/MOPlatformInfo.h"

/// The facts in force now; never null. The snapshot stays as it is when they are set anew.
/// Thread: any.
std::shared_ptr<const PlatformFacts> CurrentFacts();
