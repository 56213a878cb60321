#pragma once

#include <chrono>
#include <cstddef>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "framework/Export.h"

/// Keeps lines that somebody outside can cause, as often as he likes, from filling the log: of each
/// place in the code that logs such lines the first five are written, then a count a minute, until
/// a minute passes without one.
///
/// Thread: one at a time. It looks at no clock: callers say what time it is.
class MO_EXPORT LogRateLimit {
  public:
    using Time = std::chrono::steady_clock::time_point;

    static constexpr size_t kAtOnce = 5;
    static constexpr std::chrono::minutes kPeriod{1};

    /// Where a line comes from. The signature is compared by its address.
    struct Place {
        const char* function;
        int line;
        bool operator<(const Place& other) const {
            return std::tie(function, line) < std::tie(other.function, other.line);
        }
    };

    struct Line {
        Place place;
        int level;
        std::string text;
    };

    /// Returns: whether the line is to be written now. If not, it is counted.
    bool Allows(const Line& line, Time now);

    /// Takes the counts of the minutes that are over, each with the last line that it stands for.
    std::vector<Line> TakeCounts(Time now);

    /// When there may be a count to take; nothing while none is outstanding.
    std::optional<Time> NextCount() const;

  private:
    struct Recent {
        Time end;  // of the minute
        size_t written = 0;
        size_t counted = 0;
        Line last;  // that was counted
    };
    std::map<Place, Recent> m_recent;
};
