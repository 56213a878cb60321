#include "host/Compare.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>
#include <set>

#include "host/Identity.h"

namespace moscsi::host {
namespace {

enum class When { Before, After };

constexpr int kDefaultPort = 3260;  // where targetcli makes a new target's portal

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return text;
}

bool IsWildcard(const std::string& portal) {
    return portal.starts_with("0.0.0.0:") || portal.starts_with("[::0]:") ||
           portal.starts_with("[::]:");
}

class Comparison {
  public:
    Comparison(const Plan& plan, const ConfigfsView& view, const Manner& manner, When when)
        : m_plan(plan), m_view(view), m_manner(manner), m_when(when) {}

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

void Comparison::CheckObject(const LunPlan& lun, const StorageObject& object) {
    const std::string what = fmt::format("{}: backstore {}", lun.Title(), object.Text());
    const std::string remedy = "remove it with: " + object.Removal();
    if (lun.config.type == LunType::User) {
        const std::string wanted = "moscsisrvtcmu/" + lun.cfgString;
        if (Lower(object.config) != wanted)
            Say("{} has the configuration \"{}\", not MoScsiSrvTcmu/{}: {}", what, object.config,
                lun.cfgString, remedy);
    } else if (object.path != lun.config.path) {
        Say("{} has not the path {}: {}", what, lun.config.path, remedy);
    } else if (lun.config.type == LunType::Block && object.device != lun.device) {
        Say("{} is over another device than {} is now: {}", what, lun.config.path, remedy);
    }
    if (object.size != lun.size)
        Say("{} has {} bytes and should have {}: give the file that size, or {}", what,
            object.size.value_or(0), lun.size, remedy);
    if (object.readOnly)
        Say("{} is read-only: make the device writable and {}", what, remedy);
    const bool serialKnown = lun.config.type == LunType::User || m_manner.chosenSerials;
    // The user's serial is written after enabling, so an unfinished create shows none.
    if (serialKnown && object.serial != lun.serial)
        Say("{} has the serial \"{}\" and should have \"{}\": {}", what, object.serial, lun.serial,
            remedy);
    if (!object.enabled)
        Say("{} is not enabled: {}", what, remedy);
}

void Comparison::CheckUnlinked(const LunPlan& lun, const StorageObject& object) {
    if (m_when == When::After)
        Say("{} has its backstore {} but no LUN in target {}", lun.Title(), object.Text(),
            lun.target);
    else if (lun.config.type == LunType::User && m_manner.userByConfigfs)
        Say("{} is half-made: the directory {} is there, but no LUN links to it; remove what is "
            "there with: {}",
            lun.Title(), object.directory.string(), object.Removal());
}

void Comparison::CheckForeign(const LunPlan& lun) {
    for (const StorageObject& other : m_view.objects) {
        const bool own = other.name == lun.object;
        if (own && &other != ObjectOf(lun, m_view))
            Say("{}: another backstore, {}, has its name: remove it with: {}", lun.Title(),
                other.Text(), other.Removal());
        if (own || lun.identity.empty() || other.path.empty() || other.kind == "user")
            continue;
        const bool sameDevice = other.device && lun.device != 0 && *other.device == lun.device;
        if (sameDevice || Storage().LookAt(other.path).identity == lun.identity)
            Say("{}: {} is used by backstore {}: remove it with: {}", lun.Title(), lun.config.path,
                other.Text(), other.Removal());
    }
    for (const TargetView& target : m_view.targets)
        for (const PortalGroupView& group : target.groups)
            for (const LunView& other : group.luns)
                if (other.object == lun.object && (target.name != lun.target || group.tag != 1))
                    Say("{} is exported by target {}, portal group {}, too: remove it with: "
                        "targetcli /iscsi/{}/tpg{}/luns delete {}",
                        lun.Title(), target.name, group.tag, target.name, group.tag, other.number);
}

void Comparison::CheckLun(const TargetPlan& target, const LunPlan& lun) {
    CheckForeign(lun);
    const StorageObject* object = ObjectOf(lun, m_view);
    if (object == nullptr) {
        if (m_when == When::After)
            Say("{} has no backstore: {} is not in configfs", lun.Title(), lun.object);
        return;
    }
    CheckObject(lun, *object);
    const LunView* there = LunOf(lun, m_view);
    if (there == nullptr) {
        CheckUnlinked(lun, *object);
        return;
    }
    if (lun.number && *lun.number != there->number)
        Say("{} is number {} in target {}, and the file says {}: change the file, or remove it "
            "with: targetcli /iscsi/{}/tpg1/luns delete {}",
            lun.Title(), there->number, target.name, *lun.number, target.name, there->number);
    if (m_when == When::Before && lun.config.type == LunType::User && m_manner.userByConfigfs &&
        there->linkName != lun.cfgString)
        Say("{} was made through targetcli, and this targetcli is too old to go on with it: remove "
            "it with: targetcli /iscsi/{}/tpg1/luns delete {}; {}",
            lun.Title(), target.name, there->number, object->Removal());
}

void Comparison::CheckLunsThere(const TargetPlan& target, const PortalGroupView& group) {
    for (const LunView& there : group.luns) {
        if (there.object.empty()) {
            Say("target {} holds a half-made LUN {}: remove it with: rmdir {}", target.name,
                there.number, there.directory.string());
            continue;
        }
        const bool named =
            std::any_of(target.luns.begin(), target.luns.end(),
                        [&](const LunPlan& lun) { return LunOf(lun, m_view) == &there; });
        if (named)
            continue;
        const StorageObject* object = m_view.Object(there.hba, there.object);
        const std::string text =
            object != nullptr ? object->Text() : there.hba + "/" + there.object;
        Say("target {} holds LUN {}, {}, which the file doesn't name: add it there, or remove it "
            "with: targetcli /iscsi/{}/tpg1/luns delete {}",
            target.name, there.number, text, target.name, there.number);
        for (const LunPlan& lun : target.luns)
            if (lun.number == there.number)
                Say("{} should be number {} of target {}, which carries {}", lun.Title(),
                    there.number, target.name, text);
    }
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
    if (m_when == When::After)
        for (const InitiatorPlan& initiator : target.initiators)
            if (!initiator.luns.empty() && !seen.contains(initiator.name))
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

}  // namespace

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
                        "another "
                        "serial_prefix",
                        lun.Title(), other.Text()));
    return lines;
}

std::vector<std::string> ConflictsBefore(const Plan& plan, const ConfigfsView& view,
                                         const Manner& manner) {
    return Comparison(plan, view, manner, When::Before).Run();
}

std::vector<std::string> FaultsAfter(const Plan& plan, const ConfigfsView& view,
                                     const Manner& manner) {
    return Comparison(plan, view, manner, When::After).Run();
}

}  // namespace moscsi::host
