#pragma once

#include "runner/InterruptWait.h"
#include "runner/RunnerEnvironment.h"

/// Runs the TCMU runner until the interrupt: takes the D-Bus name, waits for the kernel's TCM-USER,
/// frees what waits in the kernel for a process that died, opens libtcmu's context and serves its
/// devices, offers the handlers on D-Bus. At the interrupt, or when a step fails, the same
/// backwards; the name is given up last.
///
/// Returns: 0 after the interrupt, 1 when a step failed (logged).
/// Thread: the one that made `interrupt`, and all signals but faults blocked in it.
int RunRunner(const RunnerEnvironment& environment, InterruptWait& interrupt);
