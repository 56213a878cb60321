#include "host/Compare.h"

#include <set>

#include "host/Comparison.h"
#include "host/Identity.h"

namespace moscsi::host {
namespace {

constexpr int kDefaultPort = 3260;  // where targetcli makes a new target's portal

bool IsWildcard(const std::string& portal) {
    return portal.starts_with("0.0.0.0:") || portal.starts_with("[::0]:") ||
           portal.starts_with("[::]:");
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
    if (!group.enabled)
        Say("target {} has its portal group disabled: enable it with: targetcli /iscsi/{}/tpg1 "
            "enable",
            target.name, target.name);
    if (group.admitsAnyone)
        Say("target {} admits every initiator to every LUN: end that with: targetcli "
            "/iscsi/{}/tpg1 set attribute generate_node_acls=0",
            target.name, target.name);
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
            if (group.tag != 1)
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

std::vector<std::string> NaaClashes(const Plan& plan, const ConfigfsView& view) {
    std::set<const StorageObject*> own;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            own.insert(ObjectOf(lun, view));
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

}  // namespace moscsi::host
