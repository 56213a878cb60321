#pragma once

#include <random>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/FaultPlan.h"

/// True while something exists at `path`.
bool FileExists(const std::string& path);

/// Says for each transfer which fault hits it. Thread: any.
class FaultInjector {
  public:
    explicit FaultInjector(const FaultPlan& plan);

    /// Returns: the rule that hits the next transfer, null for none; valid as long as this object.
    const FaultRule* Next(bool write) MO_EXCLUDES(m_mutex);

  private:
    struct Progress {
        uint64_t seen = 0;
        uint64_t hits = 0;
        std::mt19937_64 random;  ///< a rule's own: its hits don't move when another rule changes
    };

    static bool Hits(const FaultRule& rule, Progress& progress);

    const std::vector<FaultRule> m_rules;
    Mutex m_mutex;
    std::vector<Progress> m_progress MO_GUARDED_BY(m_mutex);
};
