#include "host/data/FailureLog.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstring>
#include <utility>

std::string FailureLog::Note(bool write, int number, Clock::time_point now) {
    ++m_counts[number];
    if (number == ECANCELED || number == ESHUTDOWN)
        return {};
    Told& told = m_told[number];
    if (now < told.next) {
        ++told.untold;
        return {};
    }
    told.next = now + kPeriod;
    const uint64_t untold = std::exchange(told.untold, 0);
    return fmt::format("{}: a {} failed in {}: {}{}", m_lun, write ? "write" : "read", m_place,
                       strerror(number),
                       untold == 0 ? "" : fmt::format(" ({} more since the last line)", untold));
}
