#include "host/service/PlanExecutor.h"

#include <fmt/format.h>

#include <algorithm>

#include "host/kernel/PlanObjects.h"

namespace {

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
    const CRyError result = RunStep(
        m_console,
        fmt::format("{} ({}, {}) on {}", lun.Title(), LunTypeName(lun.config.type), asked,
                    lun.target),
        [&] { return m_platform.CreateLun(&record); }, &m_steps);
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
                [&] { return m_platform.MapHost(&record, &host); }, &m_steps);
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
    const CRyError result = RunStep(
        m_console, "target " + target.name, [&] { return m_platform.CreateTarget(&record); },
        &m_steps);
    if (result.IsError())
        return false;
    for (const LunPlan* lun : InOrder(target))
        if (!NumberOf(*lun) && (stopAsked() || !MakeLun(target, *lun)))
            return false;
    return Map(target, stopAsked);
}

/// As things stand: a LUN may still meet a number that can't be mapped.
size_t PlanExecutor::StepsToApply() const {
    size_t steps = m_plan.targets.size();
    for (const TargetPlan& target : m_plan.targets) {
        for (const LunPlan& lun : target.luns)
            steps += StaysOut(lun, *m_before) ? 0 : 1;
        for (const InitiatorPlan& initiator : target.initiators)
            for (const size_t index : initiator.luns) {
                const LunView* there = LunOf(target.luns[index], *m_before);
                const bool mapped =
                    there != nullptr && IsMapped(initiator, there->number, target.name, *m_before);
                steps += mapped || StaysOut(target.luns[index], *m_before) ? 0 : 1;
            }
    }
    return steps;
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
    m_steps = StepCount(StepsToApply());
    const bool done =
        MakeWaiting(stopAsked) &&
        std::all_of(m_plan.targets.begin(), m_plan.targets.end(),
                    [&](const TargetPlan& target) { return ApplyTarget(target, stopAsked); });
    m_before = nullptr;
    return done;
}
