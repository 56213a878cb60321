#include "host/UserData.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "host/Compare.h"
#include "host/data/LunData.h"

#ifndef MOSCSI_HOSTDATA  // until host/data is there: refused, never pretended
namespace moscsi::data {
LunDataResult MakeLunData(const LunDataConfig&, MoScsiSrvPlatform&) {
    return {nullptr, "LUNs of type \"user\" are not served yet"};
}
FaultPlanResult ParseFaultPlan(const toml::value&) {
    return {{}, "faults are not served yet: leave the table out"};
}
struct LunData::Parts {};
LunData::~LunData() = default;
CRyError LunData::Read(void*, MoScsiSrvIO*, int) {
    return {};
}
CRyError LunData::Write(void*, MoScsiSrvIO*, int) {
    return {};
}
CRyError LunData::Abort(void*, MoScsiSrvIO*) {
    return {};
}
LunStatistics LunData::Snapshot() const {
    return {};
}
void LunData::Stop() {}
nlohmann::json ToJson(const LunStatistics&) {
    return {};
}
}  // namespace moscsi::data
#endif

namespace moscsi::host {

UserData::UserData() = default;
UserData::~UserData() = default;

std::string UserData::Make(const Plan& plan, const std::set<const LunPlan*>& without,
                           MoScsiSrvPlatform& platform) {
    for (const TargetPlan& target : plan.targets) {
        for (const LunPlan& lun : target.luns) {
            if (lun.config.type != LunType::User || without.contains(&lun))
                continue;
            data::LunDataConfig config;
            config.name = lun.config.name;
            config.backing =
                lun.config.backing == Backing::Memory ? data::Backing::Memory : data::Backing::File;
            config.path = lun.config.path;
            config.sizeBytes = lun.size;
            if (lun.config.faults != nullptr)
                config.faults = *lun.config.faults;
            data::LunDataResult made = data::MakeLunData(config, platform);
            if (made.data == nullptr)
                return fmt::format("{}: {}", lun.Title(), made.error);
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
    return found == m_luns.end() ? nlohmann::json() : data::ToJson(found->second->Snapshot());
}

void UserData::Stop() {
    for (const auto& [lun, data] : m_luns)
        data->Stop();
}

std::set<const LunPlan*> LostMemory(const Plan& plan, const ConfigfsView& before) {
    std::set<const LunPlan*> lost;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            if (lun.config.type == LunType::User && lun.config.backing == Backing::Memory &&
                ObjectOf(lun, before) != nullptr)
                lost.insert(&lun);
    return lost;
}

}  // namespace moscsi::host
