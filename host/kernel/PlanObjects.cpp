#include "host/kernel/PlanObjects.h"

namespace {

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

bool StaysOut(const LunPlan& lun, const ConfigfsView& view) {
    if (!lun.missing)
        return false;
    return lun.config.type == LunType::User ? ObjectOf(lun, view) == nullptr
                                            : LunOf(lun, view) == nullptr;
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
