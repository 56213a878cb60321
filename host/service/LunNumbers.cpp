#include "host/service/LunNumbers.h"

#include <set>

#include "host/kernel/PlanObjects.h"

std::optional<uint32_t> LowestFreeNumber(const TargetPlan& target, const ConfigfsView& before,
                                         const NumberOfLun& former, const NumberOfLun& given) {
    std::set<uint32_t> taken;
    for (const LunPlan& lun : target.luns)
        if (StaysOut(lun, before))
            if (const auto number = lun.number ? lun.number : former(lun))
                taken.insert(*number);
    if (taken.empty())
        return std::nullopt;
    if (const PortalGroupView* group = GroupOf(target.name, before))
        for (const LunView& there : group->luns)
            taken.insert(there.number);
    for (const LunPlan& lun : target.luns)
        if (const auto number = given(lun))
            taken.insert(*number);
    uint32_t lowest = 0;
    while (taken.contains(lowest))
        ++lowest;
    return lowest;
}
