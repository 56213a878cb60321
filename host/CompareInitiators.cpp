#include <algorithm>
#include <map>
#include <set>

#include "host/Comparison.h"

namespace moscsi::host {

void Comparison::CheckAcl(const TargetPlan& target, const InitiatorPlan& initiator,
                          const AclView& acl) {
    const std::string who = fmt::format("initiator {} of target {}", acl.initiator, target.name);
    std::map<unsigned, std::string> wanted;
    for (const size_t index : initiator.luns)
        if (const LunView* lun = LunOf(target.luns[index], m_view))
            wanted[lun->number] = target.luns[index].Title();
    for (const MappedLunView& mapped : acl.luns) {
        const std::string remedy =
            fmt::format("remove it with: targetcli /iscsi/{}/tpg1/acls/{} delete {}", target.name,
                        acl.initiator, mapped.number);
        if (wanted.erase(mapped.number) == 0)
            Say("{} sees LUN {}, which the file doesn't give it: {}", who, mapped.number, remedy);
        else if (mapped.lun != mapped.number)
            Say("{} sees as LUN {} what is LUN {}: {}", who, mapped.number,
                mapped.lun ? std::to_string(*mapped.lun) : "nowhere", remedy);
        else if (mapped.writeProtected)
            Say("{} may only read LUN {}: {}", who, mapped.number, remedy);
    }
    if (m_when == When::After)
        for (const auto& [number, title] : wanted)
            Say("{} doesn't see {}, number {}", who, title, number);
}

void Comparison::CheckAcls(const TargetPlan& target, const PortalGroupView& group) {
    std::set<std::string> seen;
    for (const AclView& acl : group.acls) {
        const auto initiator = std::find_if(
            target.initiators.begin(), target.initiators.end(),
            [&](const InitiatorPlan& candidate) { return candidate.name == acl.initiator; });
        if (initiator == target.initiators.end()) {
            Say("target {} admits the initiator {}, which the file doesn't name: add it there, or "
                "remove it with: targetcli /iscsi/{}/tpg1/acls delete {}",
                target.name, acl.initiator, target.name, acl.initiator);
            continue;
        }
        seen.insert(acl.initiator);
        CheckAcl(target, *initiator, acl);
    }
    // An initiator without LUNs needs no ACL, and the platform makes none.
    if (m_when == When::After)
        for (const InitiatorPlan& initiator : target.initiators)
            if (!initiator.luns.empty() && !seen.contains(initiator.name))
                Say("target {} doesn't admit the initiator {}", target.name, initiator.name);
}

}  // namespace moscsi::host
