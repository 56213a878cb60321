#include "tools/targetcli/TimeLimit.h"

#include <algorithm>
#include <sstream>

#include "framework/SmallFile.h"

std::chrono::seconds TimeLimit::Limit() const {
    std::istringstream text(ReadSmallFile(m_limitFile).value_or(""));
    unsigned shortened = 0;
    return text >> shortened ? std::min(m_limit, std::chrono::seconds(shortened)) : m_limit;
}
