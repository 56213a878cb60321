#include "host/data/LunStatistics.h"

#include <nlohmann/json.hpp>

nlohmann::json ToJson(const LunStatistics& statistics) {
    return {
        {"backing", statistics.backing},
        {"engine", statistics.engine},
        {"reads", statistics.reads},
        {"writes", statistics.writes},
        {"bytes_read", statistics.bytesRead},
        {"bytes_written", statistics.bytesWritten},
        {"errors", statistics.errors},
        {"faults", statistics.faults},
        {"on_loan", statistics.onLoan},
        {"aborted", statistics.aborted},
        {"unknown_aborts", statistics.unknownAborts},
        {"ignored_completions", statistics.ignoredCompletions},
    };
}
