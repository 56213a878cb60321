#include "host/data/FaultInjector.h"

#include <unistd.h>

bool FileExists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

FaultInjector::FaultInjector(const FaultPlan& plan)
    : m_rules(plan.rules), m_progress(plan.rules.size()) {
    uint64_t seed = plan.seed;
    for (Progress& progress : m_progress)
        progress.random.seed(seed++);
}

const FaultRule* FaultInjector::Next(bool write) {
    if (m_rules.empty())
        return nullptr;
    const MutexGuard guard(m_mutex);
    for (size_t i = 0; i < m_rules.size(); ++i) {
        const FaultRule& rule = m_rules[i];
        if ((write ? rule.onWrite : rule.onRead) && Hits(rule, m_progress[i]))
            return &rule;
    }
    return nullptr;
}

bool FaultInjector::Hits(const FaultRule& rule, Progress& progress) {
    if (!rule.whileFile.empty() && !FileExists(rule.whileFile))
        return false;
    if (progress.seen++ < rule.after)
        return false;
    if (rule.count != 0 && progress.hits >= rule.count)
        return false;
    // The top 53 bits, as std::uniform_real_distribution may differ from library to library.
    const double drawn = static_cast<double>(progress.random() >> 11U) * 0x1.0p-53;
    if (drawn >= rule.rate)
        return false;
    ++progress.hits;
    return true;
}
