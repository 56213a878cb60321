#include "adapters/targetcli/TimeLimit.h"

#include <algorithm>
#include <fstream>

namespace moscsi::wrapper {

std::chrono::seconds TimeLimit::limit() const {
    std::ifstream file(m_limitFile);
    unsigned shortened = 0;
    return file >> shortened ? std::min(m_limit, std::chrono::seconds(shortened)) : m_limit;
}

}  // namespace moscsi::wrapper
