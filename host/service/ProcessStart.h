#pragma once

#include <cstddef>
#include <string>

#include "host/plan/Plan.h"

/// What a process must set right of what it was started with, each before other threads exist.

/// Opens on /dev/null which of standard input, output and error are closed, and replaces the file
/// mode mask, so that nothing that this process or its children make is writable by others than
/// root. To be called before anything else: the next descriptor that is opened would become
/// standard error, and log lines go into it.
/// Returns: false when there is no /dev/null to open.
bool SetRightWhatWasInherited();

/// About how many descriptors serving the plan takes.
size_t DescriptorsFor(const Plan& plan);

/// Raises the limit of open descriptors to what this process may raise it to. Programs that it
/// starts inherit that.
/// Returns: empty, or one line when the plan needs more.
std::string RaiseDescriptorLimit(const Plan& plan);
