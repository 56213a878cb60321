#pragma once

/// The TCMU runner's main loop: serves the user backstores of this machine until SIGINT is sent to
/// the calling thread (pthread_kill). SIGINT for the process as a whole is left to the host.
///
/// `argv`: the program's name and "--handler-path=" with the installation's base directory. Both
/// strings must stay valid to the end of the process: they are kept.
/// Returns: 0 after an interrupt, non-zero when the runner could not start (logged).
/// Thread: one, with SIGINT blocked already.
int tcmu_runner_main(int argc, char** argv);
