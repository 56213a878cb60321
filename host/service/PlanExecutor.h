#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/kernel/Compare.h"
#include "host/plan/Plan.h"
#include "host/service/Console.h"
#include "host/service/LunNumbers.h"
#include "host/service/StepCount.h"
#include "platform/MoScsiSrvPlatform.h"

/// Carries a plan out through the platform, and takes it down again.
///
/// Thread: one at a time. The plan, the platform and the console outlive it.
class PlanExecutor {
  public:
    /// A user LUN's operations and context; both null for one that must answer NOT READY.
    using DataOf = std::function<std::pair<MoScsiBStorOps*, void*>(const LunPlan&)>;

    /// True when the work is to end early; looked at between steps.
    using StopAsked = std::function<bool()>;

    /// `formerNumber`: the number that a LUN had when it was last served.
    PlanExecutor(const Plan& plan, MoScsiSrvPlatform& platform, Console& console, Manner manner,
                 DataOf dataOf, NumberOfLun formerNumber);

    /// Makes everything that the plan names: targets, LUNs (those with numbers of their own first,
    /// so that automatic ones can't take these), mappings. What is there already is made again,
    /// which changes nothing: user LUNs first, over all targets, since their initiators wait;
    /// mappings are not, for the comparison has found them right. A LUN whose file is missing is
    /// made again where configfs has it; where not, it stays out, and its number free. `before` is
    /// configfs as it was, free of conflicts. Returns: false after the first step that failed, or
    /// when a stop was asked for.
    bool Apply(const ConfigfsView& before, const StopAsked& stopAsked);

    /// Takes down, in reverse, what this run made: steps that failed half-way included, what was
    /// there before Apply not. `now` is configfs as it is: a LUN number that carries something else
    /// is left alone. `outOfTime` is asked before each step.
    /// Returns: false when a step failed or time ran out; the others were still tried.
    bool TakeDownMade(const ConfigfsView& now, const StopAsked& outOfTime);

    /// The same for everything that the plan names.
    bool TakeDownAll(const ConfigfsView& now, const StopAsked& outOfTime);

    /// The number that a LUN got; nothing before it was made.
    std::optional<uint32_t> NumberOf(const LunPlan& lun) const;

  private:
    enum class Extent { Made, All };

    bool ApplyTarget(const TargetPlan& target, const StopAsked& stopAsked);
    size_t StepsToApply() const;
    bool MakeWaiting(const StopAsked& stopAsked);
    bool MakeLun(const TargetPlan& target, const LunPlan& lun);
    bool CreateLun(const LunPlan& lun, uint32_t number);
    uint32_t NumberToAsk(const TargetPlan& target, const LunPlan& lun) const;
    bool Map(const TargetPlan& target, const StopAsked& stopAsked);
    bool TakeDown(Extent extent, const ConfigfsView& now, const StopAsked& outOfTime);
    bool Unmap(const TargetPlan& target, Extent extent, const StopAsked& outOfTime);
    bool DeleteLun(const LunPlan& lun, const ConfigfsView& now);
    bool NeedsUnmap(const LunPlan& lun) const;
    bool TakeDownStep(const std::string& what, const std::function<CRyError()>& operation);
    MoScsiSrvLun RecordOf(const LunPlan& lun, uint32_t number) const;

    const Plan& m_plan;
    MoScsiSrvPlatform& m_platform;
    Console& m_console;
    const Manner m_manner;
    const DataOf m_dataOf;
    const NumberOfLun m_formerNumber;

    const ConfigfsView* m_before = nullptr;  // during Apply
    StepCount m_steps{0};
    std::map<const LunPlan*, uint32_t> m_numbers;
    std::set<const LunPlan*> m_registered;  // known to the platform: user LUNs can be deleted
    // What this run began to make, and what there wasn't before.
    std::set<const TargetPlan*> m_madeTargets;
    std::set<const LunPlan*> m_madeLuns;
    std::set<std::pair<const InitiatorPlan*, size_t>> m_madeMappings;
    bool m_slow = false;  // a take-down step took longer than a stop allows for one
};
