#pragma once

#include <memory>

#include "framework/LogWriters.h"

/// The host's log.

/// Where errors are logged that an initiator can cause, command by command: parts of signatures.
LimitedFunctions InitiatorCaused();

/// The writer for standard error or syslog. What an initiator can cause is limited; what the
/// operator asked for or configured isn't.
std::shared_ptr<CLogWriterInterface> MakeHostLog(bool toSyslog, int level);
