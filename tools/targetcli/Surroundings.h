#pragma once

#include <string>

#include "tools/targetcli/Settings.h"

/// Whether the fast road is open at all on this machine, whatever the command. Both throw SlowRoad
/// (ConfigfsChange.h) when it isn't.

/// What doesn't change while a command runs: the setting, the user, and a targetcli whose contents,
/// all of them and no others, are proven. Returns: the version that it has.
std::string RequireProvenTargetcli(const Settings& settings, const std::string& real);

/// What a first run of targetcli after a boot prepares, and what each run needs: modules, the
/// kernel's database directory, the bus. Requires: targetcli's lock is held.
void RequirePreparedMachine(const std::filesystem::path& root);
