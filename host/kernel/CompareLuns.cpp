#include <algorithm>

#include "host/kernel/Comparison.h"
#include "host/kernel/PlanObjects.h"
#include "host/plan/Storage.h"

namespace {

std::string Lower(std::string text) {
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char c) { return static_cast<char>(tolower(c)); });
    return text;
}

}  // namespace

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
    if (object.size != lun.size && !(lun.missing && lun.size == 0))
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
    if (m_when == When::After && !StaysOut(lun, m_view))
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
                if (other.object == lun.object &&
                    (target.name != lun.target || group.tag != kPortalGroup))
                    Say("{} is exported by target {}, portal group {}, too: remove it with: "
                        "targetcli /iscsi/{}/tpg{}/luns delete {}",
                        lun.Title(), target.name, group.tag, target.name, group.tag, other.number);
}

void Comparison::CheckLun(const TargetPlan& target, const LunPlan& lun) {
    CheckForeign(lun);
    const StorageObject* object = ObjectOf(lun, m_view);
    if (object == nullptr) {
        if (m_when == When::After && !StaysOut(lun, m_view))
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
