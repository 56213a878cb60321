#pragma once

#include <memory>

#include "framework/CLogWriterInterface.h"
#include "framework/CRyError.h"
#include "framework/MODebugFunction.h"

/// The levels at which the plug-in logs. A message is written when the writer's level is at least
/// its own.
inline constexpr int kLogError = -1;
inline constexpr int kLogConfirm = 0;   ///< completed configuration steps
inline constexpr int kLogProgress = 1;  ///< start-up, shutdown, progress
inline constexpr int kLogOutput = 2;    ///< output of reading commands
inline constexpr int kTraceLife = 1;    ///< construction, destruction, factory, start, stop
inline constexpr int kTraceDetail = 6;  ///< every other traced operation

/// Logs with the signature and line of the function in which it stands. The level is asked before
/// every message, and nothing is formatted below it.
#define MO_LOG(level, ...) MO_LOG_AS(__PRETTY_FUNCTION__, level, __VA_ARGS__)

/// The same in a frame that several entries share: `function` is the entry's signature.
#define MO_LOG_AS(function, level, ...)                                                     \
    do {                                                                                    \
        if (g_ptrLogWriter->GetDebugLevel() >= (level))                                     \
            g_ptrLogWriter->WriteMessage((level), (function), __LINE__, 0, 0, __VA_ARGS__); \
    } while (false)

/// Opens a function trace that lasts to the end of the enclosing scope.
#define MO_TRACE(level)                              \
    const std::unique_ptr<MODebugFunction> moTrace = \
        MoMakeTrace(__PRETTY_FUNCTION__, __LINE__, (level))

inline std::unique_ptr<MODebugFunction> MoMakeTrace(const char* function, int line, int level) {
    if (g_ptrLogWriter->GetDebugLevel() < level)
        return nullptr;
    return std::make_unique<MODebugFunction>(g_ptrLogWriter, 2, function, line, level, 0,
                                             0xFFFFFFFFU, nullptr);
}

/// The place of the function in which it stands, for errors. Every error of the plug-in names the
/// same source file.
#define MO_HERE MO_HERE_AS(__PRETTY_FUNCTION__)

/// The same in a frame that several entries share: `function` is the entry's signature.
#define MO_HERE_AS(function) FXCodeLocation("MoScsiSrvLIO", (function), __LINE__)
