#pragma once

#include <memory>
#include <string>

#include "framework/CLogWriterInterface.h"

/// A function's trace: writes a line when made and one when destroyed, at the trace's level.
class MO_EXPORT MODebugFunction {
  public:
    /// `kind` is the caller's constant 2, `level` the level at which both lines are written; the
    /// rest is 0, 0xFFFFFFFF and null, kept for the host's own callers.
    /// Requires: `function` stays valid for the trace's life (the compiler's signature does).
    MODebugFunction(std::shared_ptr<CLogWriterInterface> writer, int kind, const char* function,
                    int line, int level, int reserved, unsigned int mask, const char* text);
    ~MODebugFunction();

    MODebugFunction(const MODebugFunction&) = delete;
    MODebugFunction& operator=(const MODebugFunction&) = delete;

  private:
    std::shared_ptr<CLogWriterInterface> m_writer;
    const char* m_function;
    int m_line;
    int m_level;
};
