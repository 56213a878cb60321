#pragma once

#include "runner/DeviceTable.h"
#include "runner/MasterThread.h"
#include "runner/RunnerEnvironment.h"

/// The orderly end: each device is blocked (the kernel keeps its new commands), drained, its thread
/// ended and its handler closed, and at last libtcmu's context closed. The kernel keeps the devices
/// blocked for the next start, which finds and unblocks them.
///
/// Closing handler or context waits without limit for what the host holds. So both happen only for
/// what is drained within the limit; the rest is logged and left as it is: its memory stays mapped
/// and every late IODone finds it.
///
/// Returns: true when the context is closed; false when it was left open, and then table, master
/// thread and libtcmu must live on.
/// Thread: one.
bool StopServing(const RunnerEnvironment& environment, DeviceTable& table, MasterThread& master);
