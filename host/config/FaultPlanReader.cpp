#include "host/config/FaultPlanReader.h"

#include <fmt/format.h>

#include <array>

#include "host/config/TableReader.h"

namespace {

constexpr int64_t kLargeNumber = 1'000'000'000'000;
constexpr int64_t kLongestDelayMs = 3'600'000;
constexpr int64_t kLargestErrno = 4095;

/// What a kind is called, and the key that is its own.
struct KindRow {
    const char* name;
    FaultKind kind;
    const char* key;
    bool required;
};

constexpr std::array<KindRow, 4> kKinds{{
    {"error", FaultKind::Error, "errno", false},
    {"short", FaultKind::Short, "bytes", true},
    {"delay", FaultKind::Delay, "delay_ms", true},
    {"hold", FaultKind::Hold, "while_file", true},
}};

struct DirectionRow {
    const char* name;
    bool read;
    bool write;
};

constexpr std::array<DirectionRow, 3> kDirections{{
    {"read", true, false},
    {"write", false, true},
    {"any", true, true},
}};

void CheckOwnKeys(const KindRow& row, TableReader& reader) {
    for (const KindRow& other : kKinds) {
        // Any fault may be bound to a file; a hold must be.
        if (&other != &row && other.kind != FaultKind::Hold && reader.Has(other.key))
            reader.Complain(other.key, fmt::format("{} belongs to kind = \"{}\", not \"{}\"",
                                                   other.key, other.name, row.name));
    }
    if (row.required && !reader.Has(row.key))
        reader.Complain(row.key, fmt::format("kind = \"{}\" needs {}: add it", row.name, row.key));
}

FaultRule ReadRule(const toml::value& table, const std::string& file, Problems& problems) {
    TableReader reader(table, file, "[[target.lun.faults.rule]]", problems);
    FaultRule rule;
    if (!table.is_table())
        return rule;  // the reader has said so
    if (const KindRow* row = reader.RequiredChoice("kind", kKinds, &KindRow::name)) {
        rule.kind = row->kind;
        CheckOwnKeys(*row, reader);
    }
    if (const DirectionRow* on = reader.Choice("on", kDirections, &DirectionRow::name)) {
        rule.onRead = on->read;
        rule.onWrite = on->write;
    }
    rule.after = reader.WholeNumber("after", 0, kLargeNumber).value_or(rule.after);
    rule.count = reader.WholeNumber("count", 1, kLargeNumber).value_or(rule.count);
    rule.rate = reader.Rate("rate").value_or(rule.rate);
    if (const auto path = reader.String("while_file")) {
        rule.whileFile = *path;
        if (!path->starts_with('/'))
            reader.Complain("while_file", "while_file must be an absolute path");
    }
    rule.errorNumber =
        static_cast<int>(reader.WholeNumber("errno", 1, kLargestErrno).value_or(rule.errorNumber));
    rule.bytes = reader.WholeNumber("bytes", 0, kLargeNumber).value_or(rule.bytes);
    rule.delayMs = reader.WholeNumber("delay_ms", 1, kLongestDelayMs).value_or(rule.delayMs);
    reader.RefuseUnknownKeys();
    return rule;
}

}  // namespace

FaultPlan ReadFaultPlan(const toml::value& table, const std::string& file, Problems& problems) {
    TableReader reader(table, file, "[target.lun.faults]", problems);
    FaultPlan plan;
    plan.seed = reader.WholeNumber("seed", 0, kLargeNumber).value_or(plan.seed);
    plan.durable = reader.Boolean("durable").value_or(plan.durable);
    for (const toml::value& rule : reader.Tables("rule"))
        plan.rules.push_back(ReadRule(rule, file, problems));
    reader.RefuseUnknownKeys();
    return plan;
}
