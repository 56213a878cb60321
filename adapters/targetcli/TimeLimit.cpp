#include "adapters/targetcli/TimeLimit.h"

#include <algorithm>
#include <fstream>

std::chrono::seconds TimeLimit::Limit() const {
    std::ifstream file(m_limitFile);
    unsigned shortened = 0;
    return file >> shortened ? std::min(m_limit, std::chrono::seconds(shortened)) : m_limit;
}
