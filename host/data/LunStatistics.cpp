#include "host/data/LunStatistics.h"

#include <cstring>
#include <nlohmann/json.hpp>

nlohmann::json ToJson(const LunStatistics& statistics) {
    nlohmann::json failures = nlohmann::json::object();
    for (const auto& [number, count] : statistics.failures) {
        const char* const name = strerrorname_np(number);
        failures[name != nullptr ? name : std::to_string(number)] = count;
    }
    return {
        {"backing", statistics.backing},
        {"engine", statistics.engine},
        {"reads", statistics.reads},
        {"writes", statistics.writes},
        {"bytes_read", statistics.bytesRead},
        {"bytes_written", statistics.bytesWritten},
        {"errors", statistics.errors},
        {"failures", failures},
        {"faults", statistics.faults},
        {"on_loan", statistics.onLoan},
        {"aborted", statistics.aborted},
        {"unknown_aborts", statistics.unknownAborts},
        {"ignored_completions", statistics.ignoredCompletions},
    };
}
