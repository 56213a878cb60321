#include "host/config/Config.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <sstream>

#include "framework/SmallFile.h"
#include "host/config/FaultPlanReader.h"
#include "host/config/TableReader.h"

namespace {

constexpr size_t kMaxFileBytes = 1 << 20;
constexpr int kMaxNesting = 64;

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

/// The parser recurses into nested values: what no configuration needs must not reach it.
bool NestsTooDeep(const std::string& text) {
    int depth = 0;
    for (const char c : text) {
        if (c == '[' || c == '{')
            ++depth;
        else if ((c == ']' || c == '}') && depth > 0)
            --depth;
        if (depth > kMaxNesting)
            return true;
    }
    return false;
}

}  // namespace

Place KeyPlaces::At(const std::string& key) const {
    const auto found = lines.find(key);
    return found == lines.end() ? table : Place{table.file, found->second};
}

Config ParseConfig(const std::string& text, const std::string& file, Problems& problems) {
    Config config;
    config.file = file;
    if (text.size() > kMaxFileBytes || NestsTooDeep(text)) {
        problems.Add({file, 0},
                     "is no configuration: it is longer than 1 MiB, or brackets nest "
                     "more than 64 deep");
        return config;
    }
    // Before it parses: the library reads past its buffer to complain of a string that isn't UTF-8.
    if (const std::ptrdiff_t bad = toml::detail::check_utf8_validity(text); bad >= 0) {
        const auto line = 1 + std::count(text.begin(), text.begin() + bad, '\n');
        problems.Add({file, static_cast<unsigned>(line)},
                     "has a character that isn't UTF-8: save the file as UTF-8");
        return config;
    }
    try {
        std::istringstream stream(text);
        const toml::value root = toml::parse(stream, file);
        TableReader reader(root, file, "the file", problems);
        if (const toml::value* service = reader.Table("service"))
            ReadService(*service, config, problems);
        for (const toml::value& target : reader.Tables("target"))
            config.targets.push_back(ReadTarget(target, file, problems));
        reader.RefuseUnknownKeys();
        if (config.targets.empty() && problems.Empty())
            problems.Add({file, 0}, "names no target: add a [[target]] table");
    } catch (const std::exception& fault) {
        problems.Add(SyntaxPlace(fault, file), "is not TOML: " + SyntaxText(fault));
    }
    return config;
}

Config ReadConfig(const std::string& file, Problems& problems) {
    const std::optional<std::string> text = ReadSmallFile(file);
    if (!text) {
        problems.Add({file, 0}, fmt::format("can't be read ({}): give the name of a configuration "
                                            "file",
                                            strerror(errno)));
        Config config;
        config.file = file;
        return config;
    }
    return ParseConfig(*text, file, problems);
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
