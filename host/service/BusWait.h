#pragma once

#include <chrono>
#include <functional>
#include <string>

/// Waits until the system bus shows both objects of the user backstores' handler, owned by this
/// process: only then can targetcli make user LUNs, and does the kernel find who serves them. The
/// bus never starts another program for the asking.
/// `stopAsked` ends the wait early.
/// Returns: empty, or one line with the reason: no bus, another program has the name, or the kernel
/// lacks TCM-USER.
std::string WaitForBusObjects(std::chrono::seconds limit, const std::function<bool()>& stopAsked);

/// Waits until this process doesn't own the name any more: the plug-in's runner gives it up last,
/// when all devices are closed. Returns: false when the limit passed first.
bool WaitForBusNameGone(std::chrono::seconds limit);
