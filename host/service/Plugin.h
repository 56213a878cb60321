#pragma once

#include <filesystem>
#include <string>

#include "platform/MoScsiSrvPlatform.h"

/// Loads the plug-in and makes its platform object, which starts the plug-in's runner thread. The
/// library is never unloaded: its object lives to the end of the process.
/// Requires: SIGINT and SIGTERM are blocked, facts and log writer are in force.
/// Returns: the platform, or null and one line in `error`.
MoScsiSrvPlatform* LoadPlugin(const std::filesystem::path& library, std::string& error);
