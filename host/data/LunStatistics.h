#pragma once

#include <cstdint>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

/// What a LUN's data side has done since it was made.
struct LunStatistics {
    std::string backing;  ///< the file's path, or the backing's name
    std::string engine;   ///< what moves the data: "memory", "io_uring" or "threads"
    uint64_t reads = 0;   ///< transfers begun
    uint64_t writes = 0;
    uint64_t bytesRead = 0;  ///< bytes reported as moved
    uint64_t bytesWritten = 0;
    uint64_t errors = 0;               ///< transfers that reported anything but their length
    std::map<int, uint64_t> failures;  ///< by errno, why they moved less
    uint64_t faults = 0;               ///< transfers that the fault plan hit
    uint64_t onLoan = 0;               ///< contexts that the host holds now
    uint64_t aborted = 0;              ///< transfers that the device asked back
    uint64_t unknownAborts = 0;        ///< aborts of a context that the host didn't hold
    uint64_t ignoredCompletions = 0;   ///< second ends of one transfer, never passed on
};

/// The same by name, for the status.
nlohmann::json ToJson(const LunStatistics& statistics);
