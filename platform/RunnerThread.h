#pragma once

#include <pthread.h>

/// The runner's thread: runs the TCMU runner's main loop until it is interrupted.
/// Returns: null. There is no retry and no restart.
void* TcmuRunerThread(void* arg);

/// Starts TcmuRunerThread with SIGINT blocked from its first instruction on (the mask is
/// inherited), so that an interrupt sent right away can't end the process. The caller's own mask is
/// unchanged. Returns: false when the thread could not be made; `thread` is then undefined.
bool StartRunnerThread(pthread_t& thread);
