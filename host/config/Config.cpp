#include "host/config/Config.h"

#include <fmt/format.h>

#include <array>
#include <charconv>

#include "framework/TomlFile.h"
#include "host/config/FaultPlanReader.h"
#include "host/config/TableReader.h"

namespace {

LunConfig ReadLun(const toml::value& table, const std::string& file, Problems& problems) {
    TableReader reader(table, file, "[[target.lun]]", problems);
    LunConfig lun;
    lun.places = reader.Places();
    lun.name = reader.RequiredString("name");
    if (const LunType* type = reader.RequiredChoice("type", kLunTypes, LunTypeName))
        lun.type = *type;
    lun.path = reader.String("path").value_or("");
    lun.size = reader.Size("size");
    lun.number = reader.NumberOrAuto("number");
    lun.serialPrefix = reader.String("serial_prefix").value_or(lun.serialPrefix);
    if (lun.type == LunType::User) {
        if (const Backing* backing = reader.RequiredChoice("backing", kBackings, BackingName))
            lun.backing = *backing;
        if (const toml::value* faults = reader.Table("faults"))
            lun.faults = ReadFaultPlan(*faults, file, problems);
    }
    const bool onFile =
        lun.type == LunType::File || (lun.type == LunType::User && lun.backing == Backing::File);
    if (onFile)
        if (const Provisioning* provisioning =
                reader.Choice("provisioning", kProvisionings, ProvisioningName))
            lun.provisioning = *provisioning;
    if (onFile && lun.type == LunType::User)
        if (const FileEngineChoice* engine =
                reader.Choice("engine", kFileEngineChoices, FileEngineName))
            lun.engine = *engine;
    reader.RefuseUnknownKeys();
    return lun;
}

InitiatorConfig ReadInitiator(const toml::value& table, const std::string& file,
                              Problems& problems) {
    TableReader reader(table, file, "[[target.initiator]]", problems);
    InitiatorConfig initiator;
    initiator.places = reader.Places();
    initiator.name = reader.RequiredString("name");
    initiator.allLuns = reader.IsString("luns", "all");
    if (!initiator.allLuns)
        initiator.luns = reader.RequiredStrings("luns", "LUN names, or luns = \"all\"");
    reader.RefuseUnknownKeys();
    return initiator;
}

TargetConfig ReadTarget(const toml::value& table, const std::string& file, Problems& problems) {
    TableReader reader(table, file, "[[target]]", problems);
    TargetConfig target;
    target.places = reader.Places();
    target.name = reader.RequiredString("name");
    for (const toml::value& lun : reader.Tables("lun"))
        target.luns.push_back(ReadLun(lun, file, problems));
    for (const toml::value& initiator : reader.Tables("initiator"))
        target.initiators.push_back(ReadInitiator(initiator, file, problems));
    reader.RefuseUnknownKeys();
    return target;
}

void ReadService(const toml::value& table, Config& config, Problems& problems) {
    TableReader reader(table, config.file, "[service]", problems);
    if (const auto level = reader.Integer("log_level")) {
        if (*level < -1 || *level > 6)
            reader.Complain("log_level", "log_level is from -1 (errors only) to 6 (everything)");
        else
            config.logLevel = static_cast<int>(*level);
    }
    const std::string log = reader.String("log").value_or("stderr");
    if (log != "stderr" && log != "syslog")
        reader.Complain("log", "log is \"stderr\" or \"syslog\"");
    config.logToSyslog = log == "syslog";
    reader.RefuseUnknownKeys();
}

}  // namespace

Place KeyPlaces::At(const std::string& key) const {
    const auto found = lines.find(key);
    return found == lines.end() ? table : Place{table.file, found->second};
}

Config ParseConfig(const std::string& text, const std::string& file, Problems& problems) {
    Config config;
    config.file = file;
    TomlFault fault;
    const std::optional<toml::value> root = ParseToml(text, file, fault);
    if (!root) {
        problems.Add({file, fault.line}, fault.text);
        return config;
    }
    TableReader reader(*root, file, "the file", problems);
    if (const toml::value* service = reader.Table("service"))
        ReadService(*service, config, problems);
    for (const toml::value& target : reader.Tables("target"))
        config.targets.push_back(ReadTarget(target, file, problems));
    reader.RefuseUnknownKeys();
    if (config.targets.empty() && problems.Empty())
        problems.Add({file, 0}, "names no target: add a [[target]] table");
    return config;
}

Config ReadConfig(const std::string& file, Problems& problems) {
    TomlFault fault;
    if (const std::optional<std::string> text = ReadTomlText(file, fault))
        return ParseConfig(*text, file, problems);
    problems.Add({file, fault.line}, fault.text);
    Config config;
    config.file = file;
    return config;
}

std::optional<uint64_t> ParseSize(const std::string& text) {
    constexpr std::array<std::pair<const char*, int>, 6> kUnits{
        {{"", 0}, {"B", 0}, {"KiB", 10}, {"MiB", 20}, {"GiB", 30}, {"TiB", 40}}};
    uint64_t count = 0;
    const char* const textEnd = text.data() + text.size();
    const auto [end, fault] = std::from_chars(text.data(), textEnd, count);
    if (fault != std::errc())
        return std::nullopt;
    std::string unit(end, textEnd);
    if (unit.starts_with(' '))
        unit.erase(0, 1);
    for (const auto& [name, shift] : kUnits) {
        if (unit == name) {
            if (count > (uint64_t{INT64_MAX} >> shift))
                return std::nullopt;
            return count << shift;
        }
    }
    return std::nullopt;
}
