#include "host/status/HostStatus.h"

#include <fmt/format.h>
#include <unistd.h>

#include <nlohmann/json.hpp>

#include "framework/MoStatistics.h"
#include "host/plan/Identity.h"

using json = nlohmann::ordered_json;  // counters in the order of their source

void HostStatus::SetPhase(const std::string& phase) {
    const MutexGuard guard(m_mutex);
    m_phase = phase;
}

void HostStatus::SetDegraded(const std::string& reason) {
    const MutexGuard guard(m_mutex);
    m_degraded = reason;
}

void HostStatus::SetNumber(const LunPlan& lun, uint32_t number) {
    const MutexGuard guard(m_mutex);
    m_numbers[&lun] = number;
}

void HostStatus::SetDataSource(DataSource source) {
    const MutexGuard guard(m_mutex);
    m_dataSource = std::move(source);
}

json HostStatus::LunJson(const LunPlan& lun) const {
    json result{{"name", lun.config.name}, {"type", LunTypeName(lun.config.type)},
                {"path", lun.config.path}, {"size", lun.size},
                {"serial", lun.serial},    {"object", lun.object}};
    if (const auto number = m_numbers.find(&lun); number != m_numbers.end())
        result["number"] = number->second;
    if (lun.config.type == LunType::User) {
        result["cfgstring"] = lun.cfgString;
        if (m_dataSource)
            result["data"] = json(m_dataSource(lun));
    }
    return result;
}

json HostStatus::Json() const {
    json result{{"process", getpid()}, {"file", m_plan.file}, {"port", m_plan.port}};
    {
        const MutexGuard guard(m_mutex);
        result["phase"] = m_phase;
        if (!m_degraded.empty())
            result["degraded"] = m_degraded;
        result["targets"] = json::array();
        for (const TargetPlan& target : m_plan.targets) {
            json entry{
                {"name", target.name}, {"luns", json::array()}, {"initiators", json::array()}};
            for (const LunPlan& lun : target.luns)
                entry["luns"].push_back(LunJson(lun));
            for (const InitiatorPlan& initiator : target.initiators) {
                json names = json::array();
                for (const size_t lun : initiator.luns)
                    names.push_back(target.luns[lun].config.name);
                entry["initiators"].push_back({{"name", initiator.name}, {"luns", names}});
            }
            result["targets"].push_back(std::move(entry));
        }
    }
    result["counters"] = json::array();
    for (const auto& [source, counters] : MoStatistics::Read()) {
        json values = json::object();
        for (const auto& [name, value] : counters)
            values[name] = value;
        result["counters"].push_back({{"source", source}, {"values", std::move(values)}});
    }
    return result;
}

std::string StatusText(const json& status) {
    return status.dump(-1, ' ', false, json::error_handler_t::replace);
}

namespace {

/// One line a value; those within an object carry its name, too.
std::string DataLines(const json& data, const std::string& prefix) {
    std::string text;
    for (const auto& [name, value] : data.items()) {
        if (value.is_object())
            text += DataLines(value, prefix + name + " ");
        else
            text += fmt::format("          {:<28} {:>14}\n", prefix + name,
                                value.is_string() ? value.get<std::string>() : value.dump());
    }
    return text;
}

}  // namespace

std::string StatusTable(const json& status) {
    std::string text =
        fmt::format("moscsi-host {}: {}, serves {} on port {}\n", status.value("process", 0),
                    status.value("phase", "?"), status.value("file", "?"), status.value("port", 0));
    if (status.contains("degraded"))
        text += fmt::format("degraded: {}\n", status.value("degraded", ""));
    for (const json& target : status.value("targets", json::array())) {
        text += fmt::format("target {}\n", target.value("name", "?"));
        for (const json& lun : target.value("luns", json::array())) {
            const std::string number =
                lun.contains("number") ? lun["number"].dump() : std::string("-");
            text += fmt::format("  LUN {:>3} {:<16} {:<5} {:>10} {}\n", number,
                                lun.value("name", "?"), lun.value("type", "?"),
                                SizeText(lun.value("size", uint64_t{0})), lun.value("path", "?"));
            if (lun.contains("data"))
                text += DataLines(lun["data"], "");
        }
    }
    for (const json& counter : status.value("counters", json::array())) {
        text += fmt::format("{}\n", counter.value("source", "?"));
        const json values = counter.value("values", json::object());  // items() keeps a reference
        for (const auto& [name, value] : values.items())
            text += fmt::format("          {:<28} {:>14}\n", name, value.dump());
    }
    return text;
}
