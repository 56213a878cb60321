#include "host/service/UserData.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "host/data/LunData.h"
#include "host/kernel/PlanObjects.h"

namespace {

/// Whether data on the backing is there for the next process.
bool OutlivesProcess(Backing backing) {
    switch (backing) {
        case Backing::Memory:
            return false;
        case Backing::File:
            return true;
    }
    return false;
}

}  // namespace

UserData::UserData() = default;
UserData::~UserData() = default;

std::string UserData::Make(const Plan& plan, const std::set<const LunPlan*>& without,
                           MoScsiSrvPlatform& platform) {
    for (const TargetPlan& target : plan.targets) {
        for (const LunPlan& lun : target.luns) {
            if (lun.config.type != LunType::User || without.contains(&lun))
                continue;
            LunDataConfig config;
            config.name = lun.config.name;
            config.backing = lun.config.backing;
            config.path = lun.config.path;
            config.sizeBytes = lun.size;
            config.faults = lun.config.faults;
            config.engine = lun.config.engine;
            LunDataResult made = MakeLunData(config, platform);
            if (made.data == nullptr) {
                m_luns.clear();
                return fmt::format("{}: {}", lun.Title(), made.error);
            }
            m_luns[&lun] = std::move(made.data);
        }
    }
    return {};
}

std::pair<MoScsiBStorOps*, void*> UserData::Of(const LunPlan& lun) const {
    const auto found = m_luns.find(&lun);
    if (found == m_luns.end())
        return {nullptr, nullptr};
    return {found->second.get(), found->second->Context()};
}

nlohmann::json UserData::Statistics(const LunPlan& lun) const {
    const auto found = m_luns.find(&lun);
    if (found == m_luns.end())
        return {{"state", "not served"}};
    nlohmann::json result = ToJson(found->second->Snapshot());
    result["fault_rules"] = lun.config.faults.rules.size();
    if (OutlivesProcess(lun.config.backing))
        result["durable"] = lun.config.faults.durable;
    return result;
}

void UserData::SetTimeOuts(const Plan& plan, const ConfigfsView& view) {
    for (const TargetPlan& target : plan.targets) {
        for (const LunPlan& lun : target.luns) {
            const StorageObject* object = ObjectOf(lun, view);
            const auto found = m_luns.find(&lun);
            if (found != m_luns.end() && object != nullptr && object->commandTimeOut)
                found->second->SetCommandTimeOut(std::chrono::seconds(*object->commandTimeOut));
        }
    }
}

void UserData::Stop() {
    for (const auto& [lun, data] : m_luns)
        data->Stop();
}

std::set<const LunPlan*> LostMemory(const Plan& plan, const ConfigfsView& before) {
    std::set<const LunPlan*> lost;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            if (lun.config.type == LunType::User && !OutlivesProcess(lun.config.backing) &&
                ObjectOf(lun, before) != nullptr)
                lost.insert(&lun);
    return lost;
}
