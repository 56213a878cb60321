#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <set>

#include "host/service/ServeRun.h"

/// Before initiators see a LUN it is on record; afterwards its number, too.
bool ServeRun::NoteLuns() {
    const std::string fault =
        m_files.Note(m_before, [this](const LunPlan& lun) { return m_executor->NumberOf(lun); });
    return fault.empty() || Fail(fault);
}

bool ServeRun::NoteNewTargets() {
    for (const TargetPlan& target : m_plan.targets)
        if (m_before.Target(target.name) == nullptr)
            if (const std::string fault = m_closed.Note(target.name); !fault.empty())
                return Fail(fault);
    return true;
}

bool ServeRun::OpenTargets() {
    for (const TargetPlan& target : m_plan.targets)
        if (m_closed.Noted(target.name))
            if (const std::string fault = m_closed.Open(target.name); !fault.empty())
                return Fail(fault);
    return true;
}

bool ServeRun::PrepareData() {
    for (const std::string& line : m_files.Missing(m_before))
        m_console.Complain(line);
    if (const std::string fault = m_files.LockKernelFiles(); !fault.empty())
        return Fail(fault);
    std::set<const LunPlan*> lost = LostMemory(m_plan, m_before);
    for (const LunPlan* lun : lost)
        m_console.Say(fmt::format(
            "{} of {}: the data went with the process that held it; {}", lun->Title(), lun->target,
            m_options.discardLostMemory
                ? "it is served empty, as --discard-lost-memory says"
                : "it answers NOT READY; --discard-lost-memory serves it empty"));
    if (m_options.discardLostMemory)
        lost.clear();
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (const std::string faults = lun.FaultText(); !faults.empty())
                m_console.Say(fmt::format("{} of {} is served with {}, as the file says",
                                          lun.Title(), target.name, faults));
    for (const std::string& line : Unserved(m_plan, m_before))
        m_console.Say(line);
    for (const LunPlan* lun : m_plan.Missing())
        lost.insert(lun);
    const std::string fault = m_data.Make(m_plan, lost, *m_plugin);
    if (!fault.empty())
        return Fail(fault);
    m_data.SetTimeOuts(m_plan, m_before);
    m_status.SetDataSource([this](const LunPlan& lun) { return m_data.Statistics(lun); });
    return true;
}

bool ServeRun::Apply() {
    m_before = Look();
    if (!Refuse(ConflictsBefore(m_plan, m_before, m_manner),
                "the kernel's target disagrees with " + m_plan.file + "; nothing was changed") ||
        !PrepareData())
        return false;

    m_status.SetPhase("applying");
    m_executor = std::make_unique<PlanExecutor>(
        m_plan, *m_platform, m_console, m_manner,
        [this](const LunPlan& lun) { return m_data.Of(lun); },
        [this](const LunPlan& lun) { return m_files.FormerNumber(lun); });
    bool good = NoteLuns() && NoteNewTargets() &&
                m_executor->Apply(m_before, [this] { return m_stop.Asked(); });
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (const auto number = m_executor->NumberOf(lun))
                m_status.SetNumber(lun, *number);
    TellRoads();
    if (good && NoteLuns()) {
        const ConfigfsView after = Look();
        m_data.SetTimeOuts(m_plan, after);
        good =
            Refuse(FaultsAfter(m_plan, after, m_manner),
                   "what was made is not what " + m_plan.file + " says; it is taken down again") &&
            OpenTargets();
    } else {
        good = false;
    }
    if (!good && !m_degraded)
        TakeDown(false);
    return good;
}
