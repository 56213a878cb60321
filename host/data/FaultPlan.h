#pragma once

#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

/// What happens to a transfer that a fault hits.
enum class FaultKind {
    Error,  ///< moves nothing and reports -errno: the initiator sees MEDIUM ERROR
    Short,  ///< moves and reports fewer bytes than asked: MEDIUM ERROR too
    Delay,  ///< begins later
    Hold,   ///< doesn't begin while a file exists
};

/// One fault. It hits a transfer when every condition that is set holds.
struct FaultRule {
    FaultKind kind = FaultKind::Error;
    bool onRead = true;
    bool onWrite = true;
    uint64_t after = 0;       ///< lets this many matching transfers pass first
    uint64_t count = 0;       ///< then hits at most this many; 0: no limit
    double rate = 1.0;        ///< then hits each with this probability
    std::string whileFile{};  ///< acts only while this file exists; empty: always
    int errorNumber = EIO;    ///< Error: the errno reported
    uint64_t bytes = 0;       ///< Short: bytes moved at most
    uint64_t delayMs = 0;     ///< Delay: milliseconds
};

/// The faults of one LUN, the first that hits counts. Without rules, and durable, nothing happens.
struct FaultPlan {
    std::vector<FaultRule> rules;
    uint64_t seed = 1;    ///< the same seed and the same order of transfers give the same hits
    bool durable = true;  ///< false, for tests only: a write is answered before it is on the disk
};
