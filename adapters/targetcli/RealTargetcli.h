#pragma once

#include <string>

/// Finds the targetcli that the wrapper stands in front of.
///
/// The path of the real targetcli, absolute or as `configured` gives it (MOSCSI_TARGETCLI_REAL).
/// Without `configured` it is the first executable `targetcli` behind the wrapper's own place on
/// PATH, or the first at all when the wrapper isn't on PATH. A link to the wrapper isn't taken for
/// it, and two wrappers on one PATH can't call each other in turn.
///
/// Returns: empty when there is none; `error` then says, in one line, what to do.
std::string FindRealTargetcli(const std::string& configured, std::string& error);
