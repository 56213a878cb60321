#include "host/service/StepCount.h"

#include <fmt/format.h>

namespace {

constexpr size_t kLongPlan = 16;  // steps; nobody asks how far a shorter one is

}  // namespace

std::string StepCount::Done(Clock::time_point now) {
    ++m_done;
    if (m_total < kLongPlan)
        return {};
    const size_t left = m_total > m_done ? m_total - m_done : 0;
    const auto seconds = std::chrono::ceil<std::chrono::seconds>((now - m_begin) * left / m_done);
    return fmt::format(" ({} of {}, about {} s left)", m_done, m_total, seconds.count());
}
