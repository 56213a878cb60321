#pragma once

#include <chrono>
#include <cstddef>
#include <string>

/// How far a plan is: how many of its steps are done, and how long the others still take if they
/// take as long each. Thread: one.
class StepCount {
  public:
    using Clock = std::chrono::steady_clock;

    explicit StepCount(size_t total, Clock::time_point begin = Clock::now())
        : m_total(total), m_begin(begin) {}

    /// One more is done. Returns: " (12 of 134, about 20 s left)"; empty for a plan that is short.
    std::string Done(Clock::time_point now = Clock::now());

  private:
    size_t m_total;
    Clock::time_point m_begin;
    size_t m_done = 0;
};
