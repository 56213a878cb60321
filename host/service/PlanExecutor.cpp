#include "host/service/PlanExecutor.h"

#include <fmt/format.h>

#include <algorithm>
#include <chrono>

#include "host/kernel/PlanObjects.h"

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

uint32_t BackstoreType(const LunPlan& lun) {
    switch (lun.config.type) {
        case LunType::File:
            return BSTOR_FILE;
        case LunType::Block:
            return BSTOR_BLKDEV;
        case LunType::User:
            return BSTOR_USER;
    }
    return 0;
}

bool IsMapped(const InitiatorPlan& initiator, uint32_t number, const std::string& target,
              const ConfigfsView& view) {
    const PortalGroupView* group = GroupOf(target, view);
    if (group == nullptr)
        return false;
    for (const AclView& acl : group->acls)
        if (acl.initiator == initiator.name)
            for (const MappedLunView& mapped : acl.luns)
                if (mapped.number == number)
                    return true;
    return false;
}

/// Those with numbers of their own first, so that automatic ones can't take these.
std::vector<const LunPlan*> InOrder(const TargetPlan& target) {
    std::vector<const LunPlan*> luns;
    for (const bool automatic : {false, true})
        for (const LunPlan& lun : target.luns)
            if (lun.number.has_value() != automatic)
                luns.push_back(&lun);
    return luns;
}

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

PlanExecutor::PlanExecutor(const Plan& plan, MoScsiSrvPlatform& platform, Console& console,
                           Manner manner, DataOf dataOf, NumberOfLun formerNumber)
    : m_plan(plan),
      m_platform(platform),
      m_console(console),
      m_manner(manner),
      m_dataOf(std::move(dataOf)),
      m_formerNumber(std::move(formerNumber)) {}

std::optional<uint32_t> PlanExecutor::NumberOf(const LunPlan& lun) const {
    const auto found = m_numbers.find(&lun);
    return found == m_numbers.end() ? std::nullopt : std::optional(found->second);
}

/// A record filled afresh each time, since a create appends to the serial.
MoScsiSrvLun PlanExecutor::RecordOf(const LunPlan& lun, uint32_t number) const {
    MoScsiSrvLun record;
    record.serialNum = lun.serial;
    record.lunNum = number;
    record.targetName = lun.target;
    record.path = lun.config.path;
    record.bstorType = BackstoreType(lun);
    record.size = lun.size;
    record.hostWord = 0;
    record.hostQword1 = 0;
    record.hostQword3 = 0;
    if (lun.config.type == LunType::User)
        std::tie(record.bstoreOps, record.bstoreCtx) = m_dataOf(lun);
    return record;
}

uint32_t PlanExecutor::NumberToAsk(const TargetPlan& target, const LunPlan& lun) const {
    if (lun.number)
        return *lun.number;
    if (const LunView* there = LunOf(lun, *m_before); there != nullptr)
        // Without targetcli an automatic number is the lowest free one, for a LUN that has a number
        // already, too: so that one is asked for.
        return m_manner.userByConfigfs && lun.config.type == LunType::User ? there->number
                                                                           : kAutomaticLunNumber;
    return LowestFreeNumber(target, *m_before, m_formerNumber,
                            [this](const LunPlan& other) { return NumberOf(other); })
        .value_or(kAutomaticLunNumber);
}

bool PlanExecutor::MakeLun(const TargetPlan& target, const LunPlan& lun) {
    if (StaysOut(lun, *m_before))
        return true;
    const bool kernelFile = lun.config.type == LunType::File;
    if (kernelFile && lun.missing) {
        m_numbers[&lun] = LunOf(lun, *m_before)->number;
        return true;
    }
    // The platform would make a file that went away meanwhile.
    if (kernelFile && Storage().LookAt(lun.config.path).identity != lun.identity) {
        m_console.Complain(
            fmt::format("{}: {} isn't the file any more that was there at the start: "
                        "is its file system mounted?",
                        lun.Title(), lun.config.path));
        return false;
    }
    return CreateLun(lun, NumberToAsk(target, lun));
}

bool PlanExecutor::CreateLun(const LunPlan& lun, uint32_t number) {
    if (LunOf(lun, *m_before) == nullptr)
        m_madeLuns.insert(&lun);

    MoScsiSrvLun record = RecordOf(lun, number);
    record.serialNum = lun.config.serialPrefix;
    if (record.size == 0)  // of a missing file, and not configured
        record.size = ObjectOf(lun, *m_before)->size.value_or(0);
    const std::string asked =
        number == kAutomaticLunNumber ? "automatic number" : fmt::format("{}", number);
    const CRyError result = RunStep(m_console,
                                    fmt::format("{} ({}, {}) on {}", lun.Title(),
                                                LunTypeName(lun.config.type), asked, lun.target),
                                    [&] { return m_platform.CreateLun(&record); });
    if (record.lunNum != kAutomaticLunNumber)
        m_numbers[&lun] = record.lunNum;
    if (result.IsError())
        return false;
    m_registered.insert(&lun);
    if (!lun.number)
        m_console.Say(fmt::format("  {} has the number {}", lun.Title(), record.lunNum));
    if (record.lunNum > kMaxMappedLun) {
        m_console.Complain(
            fmt::format("{} got the number {}, which can't be mapped: give it one "
                        "from 0 to 255",
                        lun.Title(), record.lunNum));
        return false;
    }
    return true;
}

bool PlanExecutor::Map(const TargetPlan& target, const StopAsked& stopAsked) {
    for (const InitiatorPlan& initiator : target.initiators) {
        for (const size_t index : initiator.luns) {
            if (stopAsked())
                return false;
            const LunPlan& lun = target.luns[index];
            if (!NumberOf(lun))
                continue;  // it stays out
            const uint32_t number = *NumberOf(lun);
            if (IsMapped(initiator, number, target.name, *m_before))
                continue;  // the comparison has found it right
            m_madeMappings.emplace(&initiator, index);
            MoScsiSrvLun record = RecordOf(lun, number);
            MoScsiSrvHost host{initiator.name};
            const CRyError result = RunStep(
                m_console,
                fmt::format("map {}, number {}, to {}", lun.Title(), number, initiator.name),
                [&] { return m_platform.MapHost(&record, &host); });
            if (result.IsError())
                return false;
        }
    }
    return true;
}

bool PlanExecutor::ApplyTarget(const TargetPlan& target, const StopAsked& stopAsked) {
    if (stopAsked())
        return false;
    if (m_before->Target(target.name) == nullptr)
        m_madeTargets.insert(&target);
    MoScsiSrvTarget record{target.name};
    if (RunStep(m_console, "target " + target.name, [&] {
            return m_platform.CreateTarget(&record);
        }).IsError())
        return false;
    for (const LunPlan* lun : InOrder(target))
        if (!NumberOf(*lun) && (stopAsked() || !MakeLun(target, *lun)))
            return false;
    return Map(target, stopAsked);
}

/// Commands for these LUNs wait in the kernel, and their initiators with them.
bool PlanExecutor::MakeWaiting(const StopAsked& stopAsked) {
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan* lun : InOrder(target))
            if (lun->config.type == LunType::User && LunOf(*lun, *m_before) != nullptr)
                if (stopAsked() || !MakeLun(target, *lun))
                    return false;
    return true;
}

bool PlanExecutor::Apply(const ConfigfsView& before, const StopAsked& stopAsked) {
    m_before = &before;
    const bool done =
        MakeWaiting(stopAsked) &&
        std::all_of(m_plan.targets.begin(), m_plan.targets.end(),
                    [&](const TargetPlan& target) { return ApplyTarget(target, stopAsked); });
    m_before = nullptr;
    return done;
}

/// A LUN that configfs carries can't be deleted while it is mapped. One that targetcli carries
/// takes its mappings along, so that on a machine that is slow the time goes to what must be done.
bool PlanExecutor::NeedsUnmap(const LunPlan& lun) const {
    return !m_slow || (m_manner.userByConfigfs && lun.config.type == LunType::User);
}

bool PlanExecutor::TakeDownStep(const std::string& what,
                                const std::function<CRyError()>& operation) {
    const auto start = std::chrono::steady_clock::now();
    const CRyError result = RunStep(m_console, what, operation);
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
    return TakeDown(Extent::Made, now, outOfTime);
}

bool PlanExecutor::TakeDownAll(const ConfigfsView& now, const StopAsked& outOfTime) {
    return TakeDown(Extent::All, now, outOfTime);
}
