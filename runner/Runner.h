#pragma once

class InterruptWait;
struct RunnerEnvironment;

/// The TCMU runner's main loop: serves the user backstores of this machine until SIGINT is sent to
/// the calling thread (pthread_kill). SIGINT for the process as a whole is left to the host.
///
/// `argv`: the program's name and "--handler-path=" with the installation's base directory. Both
/// strings must stay valid to the end of the process: they are kept.
/// Returns: 0 after an interrupt, non-zero when the runner could not start (logged).
/// Thread: one, with SIGINT blocked already.
int tcmu_runner_main(int argc, char** argv);

/// What that loop does, on the real machine or a test's: takes the D-Bus name, waits for the
/// kernel's TCM-USER, frees what waits in the kernel for a process that died, opens libtcmu's
/// context and serves its devices, offers the handlers on D-Bus. At the interrupt, or when a step
/// fails, the same backwards; the name is given up last, and not at all when something had to be
/// left open: then it is this process's to its end.
///
/// Returns: 0 after the interrupt, 1 when a step failed (logged).
/// Thread: the one that made `interrupt`, and all signals but faults blocked in it.
int RunRunner(const RunnerEnvironment& environment, InterruptWait& interrupt);
