// Finds the plan's objects in configfs, and what was left of them.

#include <fmt/format.h>

#include <set>

#include "host/Compare.h"

namespace moscsi::host {
namespace {

constexpr unsigned kPortalGroup = 1;

const char* KindOf(LunType type) {
    switch (type) {
        case LunType::File:
            return "fileio";
        case LunType::Block:
            return "iblock";
        case LunType::User:
            return "user";
    }
    return nullptr;
}

}  // namespace

Manner Manner::Of(const std::string& version) {
    const bool isNew = version >= "2.1.fb43";
    return {.userByConfigfs = !isNew, .chosenSerials = isNew};
}

const StorageObject* ObjectOf(const LunPlan& lun, const ConfigfsView& view) {
    for (const StorageObject& object : view.objects)
        if (object.name == lun.object && object.kind == KindOf(lun.config.type))
            return &object;
    return nullptr;
}

const PortalGroupView* GroupOf(const std::string& target, const ConfigfsView& view) {
    const TargetView* found = view.Target(target);
    if (found != nullptr)
        for (const PortalGroupView& group : found->groups)
            if (group.tag == kPortalGroup)
                return &group;
    return nullptr;
}

const LunView* LunOf(const LunPlan& lun, const ConfigfsView& view) {
    const StorageObject* object = ObjectOf(lun, view);
    const PortalGroupView* group = GroupOf(lun.target, view);
    if (object != nullptr && group != nullptr)
        for (const LunView& candidate : group->luns)
            if (candidate.object == object->name && candidate.hba == object->hba)
                return &candidate;
    return nullptr;
}

std::vector<std::string> Unserved(const Plan& plan, const ConfigfsView& view) {
    std::set<const StorageObject*> named;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            named.insert(ObjectOf(lun, view));
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

}  // namespace moscsi::host
