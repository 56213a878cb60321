#pragma once

#include <string>
#include <string_view>

/// targetcli's version in the form that its releases had when the plug-in's gate was written:
/// "2.1.fb53", where today's say "2.1.53". The gate compares it as plain text with "2.1.fb41" and
/// "2.1.fb43", so the text is made to compare as the numbers do.

/// The older form of a version A.B, A.B.C or A.B.fbC, with whatever follows the numbers kept:
///   2.1.53 -> 2.1.fb53, 2.1.fb49 -> 2.1.fb49, 3.0.1 -> 3.0.fb01   C has two digits at least, as
///   2.1.9  -> 2.1.fb09                                            "2.1.fb9" is above "2.1.fb41"
///   2.1.100 -> 2.1.fb99-2.1.100, 10.0.1 -> 2.1.fb99-10.0.1        newer, but below it as text
/// Returns: empty for text that is no version.
std::string OlderVersionForm(std::string_view version);

/// Finds the version in what `targetcli --version` printed ("/usr/bin/targetcli version 2.1.53"),
/// among other lines. Returns: the word as it stands there, or empty.
std::string VersionIn(std::string_view output);
