#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <string>

/// Tells an operator why transfers fail, which an initiator can't: it sees MEDIUM ERROR, be the
/// disk full or broken. Counts failures by errno; the first of each becomes a log line at once, the
/// others at most one a minute.
///
/// Thread: one at a time.
class FailureLog {
  public:
    using Clock = std::chrono::steady_clock;
    static constexpr std::chrono::minutes kPeriod{1};

    /// `lun` and `place`, where the data is, are for people.
    FailureLog(std::string lun, std::string place)
        : m_lun(std::move(lun)), m_place(std::move(place)) {}

    /// Counts a failure with this errno.
    /// Returns: the line to log now, or an empty text. What its device asked back has no line.
    std::string Note(bool write, int number, Clock::time_point now);

    const std::map<int, uint64_t>& Counts() const { return m_counts; }

  private:
    struct Told {
        Clock::time_point next;  ///< no line before
        uint64_t untold = 0;
    };

    const std::string m_lun;
    const std::string m_place;
    std::map<int, uint64_t> m_counts;
    std::map<int, Told> m_told;
};
