#pragma once

#include <memory>

#include "framework/MoStatistics.h"

/// Lets the process see the I/O context manager's counters, as "ioctx manager".
std::unique_ptr<MoStatistics::Registration> RegisterIoctxStatistics();
