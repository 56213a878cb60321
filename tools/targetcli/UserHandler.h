#pragma once

#include "tools/targetcli/CommandLine.h"

/// The process that serves user backstores, as targetcli asks for it on the system bus: it owns the
/// name org.kernel.TCMUService1 and has an object of the handler's name, in its exact letters.
/// Both throw SlowRoad (ConfigfsChange.h) when it isn't so.

/// Nothing is asked for other kinds of backstores.
void RequireUserHandler(const CommandLine& line);

/// The same, and the handler takes the configuration of the line. Requires: a user backstore.
void RequireHandlerTakesConfig(const CommandLine& line);
