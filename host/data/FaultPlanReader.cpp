#include "host/data/FaultPlanReader.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <initializer_list>
#include <optional>
#include <string_view>

namespace moscsi::data {
namespace {

/// The first thing that is wrong in the file.
struct Problem {
    std::string line;
};

[[noreturn]] void Refuse(const toml::value& at, const std::string& what) {
    const toml::source_location place = at.location();
    throw Problem{fmt::format("{}:{}: {}", place.file_name(), place.line(), what)};
}

void RefuseUnknownKeys(const toml::value& table, std::initializer_list<std::string_view> known) {
    for (const auto& [key, value] : table.as_table()) {
        if (std::find(known.begin(), known.end(), key) == known.end())
            Refuse(value,
                   fmt::format("unknown key \"{}\"; known are {}", key, fmt::join(known, ", ")));
    }
}

uint64_t Number(const toml::value& table, const char* key, uint64_t fallback, uint64_t least,
                uint64_t most) {
    if (!table.contains(key))
        return fallback;
    const toml::value& value = table.at(key);
    if (!value.is_integer() || value.as_integer() < 0 ||
        static_cast<uint64_t>(value.as_integer()) < least ||
        static_cast<uint64_t>(value.as_integer()) > most)
        Refuse(value, fmt::format("\"{}\" wants a whole number from {} to {}", key, least, most));
    return static_cast<uint64_t>(value.as_integer());
}

std::string Text(const toml::value& table, const char* key) {
    if (!table.contains(key))
        return {};
    const toml::value& value = table.at(key);
    if (!value.is_string())
        Refuse(value, fmt::format("\"{}\" wants a text in quotes", key));
    return value.as_string().str;
}

/// What a kind is called, and the key that only it knows and can't do without.
struct KindRow {
    const char* name;
    FaultKind kind;
    const char* key;
};

constexpr std::array<KindRow, 4> kKinds = {{
    {"error", FaultKind::Error, "errno"},
    {"short", FaultKind::Short, "bytes"},
    {"delay", FaultKind::Delay, "delay_ms"},
    {"hold", FaultKind::Hold, "while_file"},
}};

constexpr uint64_t kLargeNumber = 1'000'000'000'000;
constexpr uint64_t kLongestDelayMs = 3'600'000;
constexpr uint64_t kLargestErrno = 4095;

FaultKind ReadKind(const toml::value& table) {
    const std::string name = Text(table, "kind");
    const auto* const row = std::find_if(kKinds.begin(), kKinds.end(),
                                         [&](const KindRow& r) { return name == r.name; });
    if (row == kKinds.end())
        Refuse(table, "a fault needs kind = \"error\", \"short\", \"delay\" or \"hold\"");
    for (const KindRow& other : kKinds) {
        // Any fault may be bound to a file; a hold must be.
        if (&other != row && other.kind != FaultKind::Hold && table.contains(other.key))
            Refuse(table.at(other.key), fmt::format("\"{}\" belongs to kind = \"{}\", not \"{}\"",
                                                    other.key, other.name, name));
    }
    if (row->kind != FaultKind::Error && !table.contains(row->key))
        Refuse(table, fmt::format("kind = \"{}\" needs \"{}\"", name, row->key));
    return row->kind;
}

double ReadRate(const toml::value& table) {
    if (!table.contains("rate"))
        return 1.0;
    const toml::value& value = table.at("rate");
    double rate = -1;
    if (value.is_floating())
        rate = value.as_floating();
    else if (value.is_integer())
        rate = static_cast<double>(value.as_integer());
    if (!(rate > 0 && rate <= 1))
        Refuse(value, "\"rate\" wants a probability above 0 and up to 1");
    return rate;
}

FaultRule ReadRule(const toml::value& table) {
    if (!table.is_table())
        Refuse(table, "a fault is a table: [[...faults.rule]]");
    RefuseUnknownKeys(table, {"kind", "on", "after", "count", "rate", "while_file", "errno",
                              "bytes", "delay_ms"});
    FaultRule rule;
    rule.kind = ReadKind(table);
    const std::string on = table.contains("on") ? Text(table, "on") : "any";
    if (on != "read" && on != "write" && on != "any")
        Refuse(table.at("on"), "\"on\" wants \"read\", \"write\" or \"any\"");
    rule.onRead = on != "write";
    rule.onWrite = on != "read";
    rule.after = Number(table, "after", 0, 0, kLargeNumber);
    rule.count = Number(table, "count", 0, 1, kLargeNumber);
    rule.rate = ReadRate(table);
    rule.whileFile = Text(table, "while_file");
    if (table.contains("while_file") && !rule.whileFile.starts_with('/'))
        Refuse(table.at("while_file"), "\"while_file\" wants an absolute path");
    rule.errorNumber = static_cast<int>(Number(table, "errno", EIO, 1, kLargestErrno));
    rule.bytes = Number(table, "bytes", 0, 0, kLargeNumber);
    rule.delayMs = Number(table, "delay_ms", 0, 1, kLongestDelayMs);
    return rule;
}

FaultPlan ReadPlan(const toml::value& table) {
    if (!table.is_table())
        Refuse(table, "\"faults\" wants a table");
    RefuseUnknownKeys(table, {"seed", "durable", "rule"});
    FaultPlan plan;
    plan.seed = Number(table, "seed", plan.seed, 0, kLargeNumber);
    if (table.contains("durable")) {
        if (!table.at("durable").is_boolean())
            Refuse(table.at("durable"), "\"durable\" wants true or false");
        plan.durable = table.at("durable").as_boolean();
    }
    if (!table.contains("rule"))
        return plan;
    if (!table.at("rule").is_array())
        Refuse(table.at("rule"), "rules are written [[...faults.rule]], with double brackets");
    for (const toml::value& each : table.at("rule").as_array())
        plan.rules.push_back(ReadRule(each));
    return plan;
}

}  // namespace

FaultPlanResult ParseFaultPlan(const toml::value& table) {
    try {
        return {ReadPlan(table), {}};
    } catch (const Problem& problem) {
        return {{}, problem.line};
    }
}

}  // namespace moscsi::data
