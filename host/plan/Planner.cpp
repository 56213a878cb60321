// Everything that the configuration file can be refused for, and the plan that is left.

#include <fmt/format.h>

#include <set>

#include "host/config/Names.h"
#include "host/plan/Identity.h"
#include "host/plan/Plan.h"
#include "host/plan/StorageCheck.h"

namespace {

class Planner {
  public:
    Planner(const Storage& storage, Problems& problems)
        : m_problems(problems), m_storageCheck(storage, problems) {}

    TargetPlan PlanTarget(const TargetConfig& config);

  private:
    LunPlan PlanLun(const LunConfig& config, const TargetConfig& target);
    void CheckNumber(const LunConfig& config, LunPlan& plan);
    void CheckIdentity(const LunConfig& config, const LunPlan& plan);
    InitiatorPlan PlanInitiator(const InitiatorConfig& config, const TargetPlan& target);

    void Refuse(const KeyPlaces& places, const char* key, const std::string& text) {
        m_problems.Add(places.At(key), text);
    }

    /// Refuses a text that has a fault: "path /A has upper-case letters, ...".
    void CheckText(const KeyPlaces& places, const char* key, const std::string& text,
                   const std::string& fault) {
        if (!fault.empty())
            Refuse(places, key, fmt::format("{} \"{}\" {}", key, text, fault));
    }

    Problems& m_problems;
    StorageCheck m_storageCheck;
    Once m_targets;
    Once m_naas;
    Once m_objects;
    Once m_cfgStrings;
};

void Planner::CheckNumber(const LunConfig& config, LunPlan& plan) {
    if (!config.number)
        return;
    if (*config.number < 0 || *config.number > kMaxMappedLun)
        Refuse(config.places, "number",
               fmt::format("number {} can't be mapped to an initiator: use 0 to 255, or \"auto\"",
                           *config.number));
    else
        plan.number = static_cast<uint32_t>(*config.number);
}

void Planner::CheckIdentity(const LunConfig& config, const LunPlan& plan) {
    std::string earlier = m_objects.Earlier(plan.object, config.places.table);
    if (earlier.empty() && config.type == LunType::User)
        earlier = m_cfgStrings.Earlier(plan.cfgString, config.places.table);
    if (!earlier.empty()) {
        Refuse(config.places, "path",
               fmt::format("\"{}\" and the LUN in {} would be one object: give them different "
                           "paths",
                           config.path, earlier));
        return;
    }
    earlier = m_naas.Earlier(NaaDigitsOf(plan.serial), config.places.table);
    if (!earlier.empty())
        Refuse(config.places, "serial_prefix",
               fmt::format("the serials of \"{}\" and of the LUN in {} agree in their first 25 "
                           "hexadecimal digits, so multipath would take both for one disk: use "
                           "shorter or different prefixes",
                           config.name, earlier));
}

LunPlan Planner::PlanLun(const LunConfig& config, const TargetConfig& target) {
    LunPlan plan;
    plan.config = config;
    plan.target = target.name;
    if (!config.name.empty())
        CheckText(config.places, "name", config.name, FaultOfLunName(config.name));
    CheckText(config.places, "serial_prefix", config.serialPrefix,
              FaultOfSerialPrefix(config.serialPrefix));
    CheckNumber(config, plan);

    if (MediumOf(config) == Medium::Memory && config.path.empty())
        plan.config.path = "/memory/" + config.name;  // only a name, from which others are made
    const std::string& path = plan.config.path;
    if (path.empty()) {
        Refuse(config.places, "path", "[[target.lun]] has no path: add path = \"/...\"");
        return plan;
    }
    if (const std::string fault = FaultOfPath(path); !fault.empty()) {
        CheckText(config.places, "path", path, fault);
        return plan;
    }
    m_storageCheck.Check(plan);
    plan.serial = SerialOf(config.serialPrefix, target.name, path);
    plan.object = ObjectNameOf(target.name, path);
    plan.cfgString = CfgStringOf(target.name, path);
    CheckIdentity(plan.config, plan);
    return plan;
}

InitiatorPlan Planner::PlanInitiator(const InitiatorConfig& config, const TargetPlan& target) {
    InitiatorPlan plan;
    plan.name = config.name;
    if (!config.name.empty())
        CheckText(config.places, "name", config.name, FaultOfIqn(config.name));
    std::set<std::string> wanted(config.luns.begin(), config.luns.end());
    if (wanted.size() != config.luns.size())
        Refuse(config.places, "luns", "luns names a LUN twice: name it once");
    for (size_t i = 0; i < target.luns.size(); ++i)
        if (config.allLuns || wanted.erase(target.luns[i].config.name) != 0)
            plan.luns.push_back(i);
    for (const std::string& name : wanted)
        Refuse(config.places, "luns",
               fmt::format("luns names \"{}\", and the target has no LUN of that name", name));
    return plan;
}

TargetPlan Planner::PlanTarget(const TargetConfig& config) {
    TargetPlan plan;
    plan.name = config.name;
    if (!config.name.empty()) {
        CheckText(config.places, "name", config.name, FaultOfIqn(config.name));
        if (const auto earlier = m_targets.Earlier(config.name, config.places.At("name"));
            !earlier.empty())
            Refuse(
                config.places, "name",
                fmt::format("target {} stands in {} already: merge the two", config.name, earlier));
    }
    if (config.luns.size() > kMaxMappedLun + 1)
        m_problems.Add(config.places.table,
                       "has more than 256 LUNs, which can't all be mapped: "
                       "spread them over targets");
    Once names;
    Once numbers;
    for (const LunConfig& lun : config.luns) {
        plan.luns.push_back(PlanLun(lun, config));
        if (const auto earlier = names.Earlier(lun.name, lun.places.At("name")); !earlier.empty())
            Refuse(lun.places, "name",
                   fmt::format("the LUN name \"{}\" stands in {} already: use another", lun.name,
                               earlier));
        if (!lun.number)
            continue;
        if (const auto earlier =
                numbers.Earlier(std::to_string(*lun.number), lun.places.At("number"));
            !earlier.empty())
            Refuse(lun.places, "number",
                   fmt::format("LUN number {} stands in {} already: use another", *lun.number,
                               earlier));
    }
    Once initiators;
    for (const InitiatorConfig& initiator : config.initiators) {
        plan.initiators.push_back(PlanInitiator(initiator, plan));
        if (const auto earlier = initiators.Earlier(initiator.name, initiator.places.At("name"));
            !earlier.empty())
            Refuse(initiator.places, "name",
                   fmt::format("initiator {} stands in {} already: merge the two", initiator.name,
                               earlier));
    }
    return plan;
}

}  // namespace

Plan MakePlan(const Config& config, int port, const Storage& storage, Problems& problems) {
    Plan plan;
    plan.file = config.file;
    plan.port = port;
    Planner planner(storage, problems);
    for (const TargetConfig& target : config.targets)
        plan.targets.push_back(planner.PlanTarget(target));
    return plan;
}
