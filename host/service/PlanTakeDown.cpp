// How PlanExecutor takes down what a plan names.

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "host/kernel/PlanObjects.h"
#include "host/service/PlanExecutor.h"

namespace {

constexpr std::chrono::seconds kStepAllowance{3};

/// A container seen from its end (std::views need a newer clang).
template <typename Container>
struct Reversed {
    explicit Reversed(const Container& c) : container(c) {}
    auto begin() const { return container.rbegin(); }
    auto end() const { return container.rend(); }
    const Container& container;
};

/// What somebody else put into a target of ours: deleting the target would take it along.
std::string ForeignIn(const TargetPlan& target, const ConfigfsView& view) {
    const PortalGroupView* group = GroupOf(target.name, view);
    if (group == nullptr)
        return {};
    for (const LunView& there : group->luns)
        if (std::none_of(target.luns.begin(), target.luns.end(),
                         [&](const LunPlan& lun) { return there.object == lun.object; }))
            return fmt::format("LUN {} ({}/{})", there.number, there.hba, there.object);
    for (const AclView& acl : group->acls)
        if (std::none_of(
                target.initiators.begin(), target.initiators.end(),
                [&](const InitiatorPlan& initiator) { return acl.initiator == initiator.name; }))
            return "the initiator " + acl.initiator;
    return {};
}

}  // namespace

/// A LUN that configfs carries can't be deleted while it is mapped. One that targetcli carries
/// takes its mappings along, so that on a machine that is slow the time goes to what must be done.
bool PlanExecutor::NeedsUnmap(const LunPlan& lun) const {
    return !m_slow || (m_manner.userByConfigfs && lun.config.type == LunType::User);
}

bool PlanExecutor::TakeDownStep(const std::string& what,
                                const std::function<CRyError()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    const CRyError result = RunStep(m_console, what, operation, &m_steps);
    m_slow |= std::chrono::steady_clock::now() - start > kStepAllowance;
    return !result.IsError();
}

bool PlanExecutor::Unmap(const TargetPlan& target, Extent extent, const StopAsked& outOfTime) {
    bool good = true;
    for (const InitiatorPlan& initiator : Reversed(target.initiators)) {
        for (const size_t index : Reversed(initiator.luns)) {
            const LunPlan& lun = target.luns[index];
            const auto number = NumberOf(lun);
            if (!number || !NeedsUnmap(lun) ||
                (extent == Extent::Made && !m_madeMappings.contains({&initiator, index})))
                continue;
            if (outOfTime())
                return false;
            MoScsiSrvLun record = RecordOf(lun, *number);
            MoScsiSrvHost host{initiator.name};
            good &= TakeDownStep(
                fmt::format("unmap {}, number {}, from {}", lun.Title(), *number, initiator.name),
                [&] { return m_platform.UnMapHost(&record, &host); });
        }
    }
    return good;
}

bool PlanExecutor::DeleteLun(const LunPlan& lun, const ConfigfsView& now) {
    if (StaysOut(lun, now) && ObjectOf(lun, now) == nullptr)
        return true;
    const PortalGroupView* group = GroupOf(lun.target, now);
    const LunView* own = LunOf(lun, now);
    const uint32_t number =
        own != nullptr ? own->number : NumberOf(lun).value_or(kAutomaticLunNumber);
    if (group != nullptr)
        for (const LunView& there : group->luns)
            if (there.number == number && &there != own) {
                m_console.Complain(fmt::format("LUN {} of {} carries {}/{}, not {}: it stays",
                                               number, lun.target, there.hba, there.object,
                                               lun.Title()));
                return false;
            }
    // The platform deletes a user LUN only when its create succeeded; otherwise the caller names
    // what is left of it.
    if (lun.config.type == LunType::User && !m_registered.contains(&lun))
        return false;
    MoScsiSrvLun record = RecordOf(lun, number);
    return TakeDownStep(fmt::format("delete {} of {}", lun.Title(), lun.target),
                        [&] { return m_platform.DeleteLun(&record); });
}

bool PlanExecutor::TakeDown(Extent extent, const ConfigfsView& now, const StopAsked& outOfTime) {
    bool good = true;
    for (const TargetPlan& target : Reversed(m_plan.targets)) {
        good &= Unmap(target, extent, outOfTime);
        for (const LunPlan& lun : Reversed(target.luns)) {
            if (extent == Extent::Made && !m_madeLuns.contains(&lun))
                continue;
            if (outOfTime())
                return false;
            good &= DeleteLun(lun, now);
        }
        if (extent == Extent::Made && !m_madeTargets.contains(&target))
            continue;
        if (outOfTime())
            return false;
        if (const std::string foreign = ForeignIn(target, now); !foreign.empty()) {
            m_console.Complain(
                fmt::format("target {} stays: it holds {}, which the file doesn't "
                            "name",
                            target.name, foreign));
            good = false;
            continue;
        }
        MoScsiSrvTarget record{target.name};
        good &= TakeDownStep("delete target " + target.name,
                             [&] { return m_platform.DeleteTarget(&record); });
    }
    return good;
}

bool PlanExecutor::TakeDownMade(const ConfigfsView& now, const StopAsked& outOfTime) {
    m_steps = StepCount(m_madeMappings.size() + m_madeLuns.size() + m_madeTargets.size());
    return TakeDown(Extent::Made, now, outOfTime);
}

bool PlanExecutor::TakeDownAll(const ConfigfsView& now, const StopAsked& outOfTime) {
    size_t steps = m_plan.ObjectCount();
    for (const TargetPlan& target : m_plan.targets)
        steps -= target.initiators.size();  // their ACLs go with the target
    m_steps = StepCount(steps);
    return TakeDown(Extent::All, now, outOfTime);
}
