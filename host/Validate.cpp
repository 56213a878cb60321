// Everything that the configuration file can be refused for, and the plan that is left.

#include <fmt/format.h>

#include <cstring>
#include <filesystem>
#include <map>
#include <set>

#include "host/Identity.h"
#include "host/Names.h"
#include "host/Plan.h"

namespace moscsi::host {
namespace {

constexpr uint64_t kBlock = 512;
constexpr int64_t kMaxMappedLun = 255;                  // of the kernel's mapped LUNs
constexpr uint64_t kMaxUserBlocks = uint64_t{1} << 32;  // WRITE (10) addresses no more

/// Remembers what must occur once, and where it occurred first.
class Once {
  public:
    /// Returns: empty, or "line N" of the first occurrence.
    std::string Earlier(const std::string& key, const Place& place) {
        const auto [entry, fresh] = m_places.emplace(key, place.line);
        return fresh ? std::string() : fmt::format("line {}", entry->second);
    }

  private:
    std::map<std::string, unsigned> m_places;
};

/// What holds a LUN's data.
enum class Medium { Memory, File, Device };

Medium MediumOf(data::Backing backing) {
    switch (backing) {
        case data::Backing::Memory:
            return Medium::Memory;
        case data::Backing::File:
            return Medium::File;
    }
    return {};
}

Medium MediumOf(const LunConfig& lun) {
    switch (lun.type) {
        case LunType::File:
            return Medium::File;
        case LunType::Block:
            return Medium::Device;
        case LunType::User:
            return MediumOf(lun.backing);
    }
    return {};
}

class Planner {
  public:
    Planner(const Storage& storage, Problems& problems)
        : m_storage(storage), m_problems(problems) {}

    TargetPlan PlanTarget(const TargetConfig& config);

  private:
    LunPlan PlanLun(const LunConfig& config, const TargetConfig& target);
    void CheckNumber(const LunConfig& config, LunPlan& plan);
    void CheckStorage(const LunConfig& config, LunPlan& plan);
    void CheckFile(const LunConfig& config, const PathFacts& facts, LunPlan& plan);
    void CheckDevice(const LunConfig& config, const PathFacts& facts, LunPlan& plan);
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

    const Storage& m_storage;
    Problems& m_problems;
    Once m_targets;
    Once m_storages;
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

void Planner::CheckFile(const LunConfig& config, const PathFacts& facts, LunPlan& plan) {
    if (facts.kind == PathFacts::Kind::Missing) {
        plan.makesFile = true;
        const auto parent = m_storage.LookAt(std::filesystem::path(config.path).parent_path());
        if (parent.kind != PathFacts::Kind::Other)
            Refuse(config.places, "path",
                   fmt::format("the directory of {} isn't there: make it", config.path));
        if (!config.size)
            Refuse(config.places, "path",
                   fmt::format("{} isn't there, and no size is given to make it: add "
                               "size = \"...\"",
                               config.path));
        plan.size = config.size.value_or(0);
    } else if (facts.kind != PathFacts::Kind::File) {
        Refuse(config.places, "path",
               fmt::format("{} is no regular file: give a file, or type = \"block\" for a device",
                           config.path));
    } else {
        plan.size = facts.length;
        if (config.size && *config.size != facts.length)
            Refuse(config.places, "size",
                   fmt::format("{} is {} bytes long, and size says {}: leave size out, or change "
                               "the file",
                               config.path, facts.length, *config.size));
        else if (facts.length == 0 || facts.length % kBlock != 0)
            Refuse(config.places, "path",
                   fmt::format("{} is {} bytes long, which is no positive multiple of 512: "
                               "lengthen it with truncate -s",
                               config.path, facts.length));
    }
}

void Planner::CheckDevice(const LunConfig& config, const PathFacts& facts, LunPlan& plan) {
    if (facts.kind != PathFacts::Kind::BlockDevice) {
        Refuse(config.places, "path",
               facts.kind == PathFacts::Kind::Missing
                   ? fmt::format("the device {} isn't there: give one that is", config.path)
                   : fmt::format("{} is no block device: give one, or type = \"file\" for a file",
                                 config.path));
        return;
    }
    plan.device = facts.device;
    plan.size = m_storage.DeviceSize(facts.device).value_or(0);
    if (plan.size == 0)
        Refuse(
            config.places, "path",
            fmt::format("the device {} has no size: attach a medium or a file to it", config.path));
    else if (config.size && *config.size != plan.size)
        Refuse(config.places, "size",
               fmt::format("the device {} has {} bytes, and size says {}: leave size out",
                           config.path, plan.size, *config.size));
    if (m_storage.DeviceReadOnly(facts.device))
        Refuse(config.places, "path",
               fmt::format("the device {} is read-only: make it writable, or give another",
                           config.path));
    if (const std::string use = m_storage.DeviceUse(facts.device); !use.empty())
        Refuse(config.places, "path",
               fmt::format("the device {} {}: free it, or give another", config.path, use));
}

void Planner::CheckStorage(const LunConfig& config, LunPlan& plan) {
    if (config.size && (*config.size == 0 || *config.size % kBlock != 0))
        Refuse(config.places, "size",
               fmt::format("size {} is no positive multiple of 512: round it", *config.size));
    plan.size = config.size.value_or(0);

    const Medium medium = MediumOf(config);
    if (medium == Medium::Memory) {
        if (!config.size)
            Refuse(
                config.places, "size",
                fmt::format("a LUN on {} needs size = \"...\"", data::BackingName(config.backing)));
    } else {
        const PathFacts facts = m_storage.LookAt(config.path);
        if (facts.error != 0) {
            Refuse(config.places, "path",
                   fmt::format("{} can't be looked at ({}): mend the path", config.path,
                               strerror(facts.error)));
            return;
        }
        plan.identity = facts.identity;
        if (medium == Medium::Device)
            CheckDevice(config, facts, plan);
        else
            CheckFile(config, facts, plan);
        const std::string earlier = m_storages.Earlier(facts.identity, config.places.At("path"));
        if (!earlier.empty())
            Refuse(config.places, "path",
                   fmt::format("{} is used by two LUNs, the other one in {}: give each its own",
                               config.path, earlier));
    }
    if (config.type == LunType::User && plan.size > kMaxUserBlocks * kBlock)
        Refuse(config.places, "size",
               fmt::format("{} is more than 2 TiB, which a user LUN can't address: use less",
                           SizeText(plan.size)));
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
    CheckStorage(config, plan);
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

}  // namespace moscsi::host
