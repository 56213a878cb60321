#include "framework/LogRateLimit.h"

#include <algorithm>
#include <utility>

bool LogRateLimit::Allows(const Line& line, Time now) {
    Recent& recent = m_recent[line.place];
    if (recent.counted == 0 && now >= recent.end)
        recent = {.end = now + kPeriod, .last = {}};
    if (recent.written < kAtOnce) {
        ++recent.written;
        return true;
    }
    ++recent.counted;
    recent.last = line;
    return false;
}

std::vector<LogRateLimit::Line> LogRateLimit::TakeCounts(Time now) {
    std::vector<Line> counts;
    for (auto& [place, recent] : m_recent) {
        if (recent.counted == 0 || now < recent.end)
            continue;
        Line& line = counts.emplace_back(recent.last);
        line.text =
            std::to_string(recent.counted) + " more like this in the last minute: " + line.text;
        // Whatever comes in the next minute is counted too.
        recent = {.end = now + kPeriod, .written = kAtOnce, .last = {}};
    }
    return counts;
}

std::optional<LogRateLimit::Time> LogRateLimit::NextCount() const {
    std::optional<Time> next;
    for (const auto& [place, recent] : m_recent)
        if (recent.counted != 0)
            next = std::min(next.value_or(recent.end), recent.end);
    return next;
}
