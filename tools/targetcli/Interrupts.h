#pragma once

#include "framework/UniqueFd.h"

/// The signals that ask the wrapper to end (SIGINT, SIGTERM, SIGHUP), taken from a descriptor, so
/// that the child can be ended first. One that the caller had blocked or ignored stays so: a host
/// that keeps SIGINT to itself isn't left with half a configuration step when a terminal sends it
/// to everybody.
///
/// Threads: made once, in the main thread, before any child is started.
class Interrupts {
  public:
    Interrupts();

    /// Polls readable when a signal has come; -1 when there is none to wait for.
    int Fd() const { return m_signals.Get(); }
    /// Returns: the signal's number, 0 when none has come.
    int Take() const;

  private:
    UniqueFd m_signals;
};
