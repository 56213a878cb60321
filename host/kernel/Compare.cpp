#include "host/kernel/Compare.h"

#include <algorithm>
#include <map>
#include <set>

#include "host/kernel/Comparison.h"
#include "host/kernel/PlanObjects.h"
#include "host/plan/Identity.h"

namespace {

constexpr int kDefaultPort = 3260;  // where targetcli makes a new target's portal

bool IsWildcard(const std::string& portal) {
    return portal.starts_with("0.0.0.0:") || portal.starts_with("[::0]:") ||
           portal.starts_with("[::]:");
}

/// The objects of all LUNs of the plan.
std::set<const StorageObject*> ObjectsOf(const Plan& plan, const ConfigfsView& view) {
    std::set<const StorageObject*> objects;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            objects.insert(ObjectOf(lun, view));
    return objects;
}

}  // namespace

void Comparison::CheckNewPortal(const TargetPlan& target) {
    if (m_plan.port != kDefaultPort)
        Say("the service port is {}, and a new target listens on {}: make target {} with a portal "
            "on {} first, or set the port to {} in the platform file",
            m_plan.port, kDefaultPort, target.name, m_plan.port, kDefaultPort);
    const std::string suffix = ":" + std::to_string(m_plan.port);
    for (const TargetView& other : m_view.targets)
        for (const PortalGroupView& group : other.groups)
            for (const std::string& portal : group.portals)
                if (portal.ends_with(suffix) && !IsWildcard(portal))
                    Say("port {} is taken on one address by the portal {} of target {}, so nobody "
                        "could log in to {}: remove that portal with: targetcli "
                        "/iscsi/{}/tpg{}/portals delete {} {}",
                        m_plan.port, portal, other.name, target.name, other.name, group.tag,
                        portal.substr(0, portal.rfind(':')), m_plan.port);
}

void Comparison::CheckPortals(const TargetPlan& target, const PortalGroupView& group) {
    const std::string suffix = ":" + std::to_string(m_plan.port);
    bool served = false;
    for (const std::string& portal : group.portals) {
        if (portal.ends_with(suffix))
            served = true;
        else
            Say("target {} has a portal {}, which isn't on the service port {}: remove it with: "
                "targetcli /iscsi/{}/tpg1/portals delete {} {}",
                target.name, portal, m_plan.port, target.name, portal.substr(0, portal.rfind(':')),
                portal.substr(portal.rfind(':') + 1));
    }
    if (!served)
        Say("target {} has no portal on the service port {}, so nobody could log in: see what has "
            "the port (ss -ltnp), free it, and remove the target with: targetcli /iscsi delete {}",
            target.name, m_plan.port, target.name);
    if (!group.enabled && !group.opensLater)
        Say("target {} has its portal group disabled: enable it with: targetcli /iscsi/{}/tpg1 "
            "enable",
            target.name, target.name);
    if (group.admitsAnyone)
        Say("target {} admits every initiator to every LUN: end that with: targetcli "
            "/iscsi/{}/tpg1 set attribute generate_node_acls=0",
            target.name, target.name);
}

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
    const auto isServed = [&](size_t lun) { return !StaysOut(target.luns[lun], m_view); };
    if (m_when == When::After)
        for (const InitiatorPlan& initiator : target.initiators)
            if (!seen.contains(initiator.name) &&
                std::any_of(initiator.luns.begin(), initiator.luns.end(), isServed))
                Say("target {} doesn't admit the initiator {}", target.name, initiator.name);
}

void Comparison::CheckTarget(const TargetPlan& target) {
    const TargetView* there = m_view.Target(target.name);
    if (there == nullptr) {
        if (m_when == When::After)
            Say("target {} is not in configfs", target.name);
        else
            CheckNewPortal(target);
    } else {
        for (const PortalGroupView& group : there->groups)
            if (group.tag != kPortalGroup)
                Say("target {} holds portal group {}, which the file doesn't name: remove it with: "
                    "targetcli /iscsi/{} delete {}",
                    target.name, group.tag, target.name, group.tag);
        if (const PortalGroupView* group = GroupOf(target.name, m_view)) {
            CheckPortals(target, *group);
            CheckLunsThere(target, *group);
            CheckAcls(target, *group);
        } else {
            Say("target {} has no portal group 1: remove it with: targetcli /iscsi delete {}",
                target.name, target.name);
        }
    }
    for (const LunPlan& lun : target.luns)
        CheckLun(target, lun);
}

std::vector<std::string> Comparison::Run() {
    for (const TargetPlan& target : m_plan.targets)
        CheckTarget(target);
    for (std::string& line : NaaClashes(m_plan, m_view))
        m_lines.push_back(std::move(line));
    return std::move(m_lines);
}

Manner Manner::Of(const std::string& version) {
    const bool isNew = version >= "2.1.fb43";
    return {.userByConfigfs = !isNew, .chosenSerials = isNew};
}

std::vector<std::string> NaaClashes(const Plan& plan, const ConfigfsView& view) {
    const std::set<const StorageObject*> own = ObjectsOf(plan, view);
    std::vector<std::string> lines;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            for (const StorageObject& other : view.objects)
                if (!other.serial.empty() && !own.contains(&other) &&
                    NaaDigitsOf(other.serial) == NaaDigitsOf(lun.serial))
                    lines.push_back(fmt::format(
                        "{}: its serial and that of backstore {} agree in their first 25 "
                        "hexadecimal digits, so multipath would take both for one disk: use "
                        "another serial_prefix",
                        lun.Title(), other.Text()));
    return lines;
}

std::vector<std::string> ConflictsBefore(const Plan& plan, const ConfigfsView& view,
                                         const Manner& manner) {
    return Comparison(plan, view, manner, Comparison::When::Before).Run();
}

std::vector<std::string> FaultsAfter(const Plan& plan, const ConfigfsView& view,
                                     const Manner& manner) {
    return Comparison(plan, view, manner, Comparison::When::After).Run();
}

std::vector<std::string> Unserved(const Plan& plan, const ConfigfsView& view) {
    const std::set<const StorageObject*> named = ObjectsOf(plan, view);
    std::vector<std::string> lines;
    for (const StorageObject& object : view.objects)
        if ((object.config.starts_with("MoScsiSrvTcmu/") ||
             object.config.starts_with("moscsisrvtcmu/")) &&
            !named.contains(&object))
            lines.push_back(fmt::format(
                "backstore {} isn't named by the file and answers NOT READY; once no LUN carries "
                "it, remove it with: {}",
                object.Text(), object.Removal()));
    return lines;
}

std::vector<std::string> Leftovers(const Plan& plan, const ConfigfsView& before,
                                   const ConfigfsView& view) {
    std::vector<std::string> lines;
    for (const TargetPlan& target : plan.targets) {
        if (view.Target(target.name) != nullptr && before.Target(target.name) == nullptr)
            lines.push_back(
                fmt::format("target {} is left; remove it with: targetcli /iscsi "
                            "delete {}",
                            target.name, target.name));
        for (const LunPlan& lun : target.luns) {
            const LunView* left = LunOf(lun, view);
            if (left != nullptr && LunOf(lun, before) == nullptr)
                lines.push_back(fmt::format(
                    "{} of {} is left as number {}; remove it with: targetcli /iscsi/{}/tpg1/luns "
                    "delete {}",
                    lun.Title(), target.name, left->number, target.name, left->number));
            const StorageObject* object = ObjectOf(lun, view);
            if (object != nullptr && ObjectOf(lun, before) == nullptr)
                lines.push_back(fmt::format("backstore {} is left; remove it with: {}",
                                            object->Text(), object->Removal()));
        }
    }
    return lines;
}
