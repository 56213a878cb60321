#pragma once

#include <fmt/format.h>

#include <string>
#include <utility>
#include <vector>

#include "host/kernel/Compare.h"

/// One comparison of configfs with the plan: Compare.cpp has the targets, their portals and
/// who sees which LUN, CompareLuns.cpp the LUNs and their backstores.
/// Thread: one. What it is made from outlives it.
class Comparison {
  public:
    enum class When { Before, After };  ///< the first command, the last

    Comparison(const Plan& plan, const ConfigfsView& view, const Manner& manner, When when)
        : m_plan(plan), m_view(view), m_manner(manner), m_when(when) {}

    /// Returns: a line for each disagreement. Call it once.
    std::vector<std::string> Run();

  private:
    void CheckTarget(const TargetPlan& target);
    void CheckPortals(const TargetPlan& target, const PortalGroupView& group);
    void CheckNewPortal(const TargetPlan& target);
    void CheckLunsThere(const TargetPlan& target, const PortalGroupView& group);
    void CheckLun(const TargetPlan& target, const LunPlan& lun);
    void CheckObject(const LunPlan& lun, const StorageObject& object);
    void CheckUnlinked(const LunPlan& lun, const StorageObject& object);
    void CheckAcls(const TargetPlan& target, const PortalGroupView& group);
    void CheckAcl(const TargetPlan& target, const InitiatorPlan& initiator, const AclView& acl);
    void CheckForeign(const LunPlan& lun);

    template <typename... Arguments>
    void Say(fmt::format_string<Arguments...> format, Arguments&&... arguments) {
        m_lines.push_back(fmt::format(format, std::forward<Arguments>(arguments)...));
    }

    const Plan& m_plan;
    const ConfigfsView& m_view;
    const Manner& m_manner;
    const When m_when;
    std::vector<std::string> m_lines;
};
