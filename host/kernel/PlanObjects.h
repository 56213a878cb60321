#pragma once

#include <string>

#include "host/kernel/ConfigfsView.h"
#include "host/plan/Plan.h"

/// Finds what a plan names in configfs. Each returns null when there is none. Pure functions;
/// thread: any.

/// The tag of the portal group that targetcli makes with a target.
inline constexpr unsigned kPortalGroup = 1;

/// That portal group.
const PortalGroupView* GroupOf(const std::string& target, const ConfigfsView& view);

/// The object of a LUN of the plan, linked or not.
const StorageObject* ObjectOf(const LunPlan& lun, const ConfigfsView& view);

/// Whether a LUN stays out: its backing file isn't there, and neither is anything in configfs that
/// could answer for it (a user LUN's backstore answers NOT READY, the kernel's file LUN goes on
/// with the file that it has open).
bool StaysOut(const LunPlan& lun, const ConfigfsView& view);

/// The LUN of the plan's portal group that carries the object.
const LunView* LunOf(const LunPlan& lun, const ConfigfsView& view);
