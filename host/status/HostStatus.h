#pragma once

#include <functional>
#include <map>
#include <nlohmann/json_fwd.hpp>
#include <string>

#include "framework/Mutex.h"
#include "host/plan/Plan.h"

/// What `moscsi-host status` shows: what the host is doing, its targets and LUNs, and every counter
/// that is registered in the process.
///
/// Thread: any. Readable at every moment, while a configuration step waits too.
class HostStatus {
  public:
    /// The plan must outlive this object.
    explicit HostStatus(const Plan& plan) : m_plan(plan) {}

    /// "starting", "applying", "ready", "stopping".
    void SetPhase(const std::string& phase) MO_EXCLUDES(m_mutex);

    /// Why the host does nothing any more but to serve what is there. Set once.
    void SetDegraded(const std::string& reason) MO_EXCLUDES(m_mutex);

    void SetNumber(const LunPlan& lun, uint32_t number) MO_EXCLUDES(m_mutex);

    /// Sets who gives a user LUN's statistics (null for none); called with no lock but this
    /// object's held.
    using DataSource = std::function<nlohmann::json(const LunPlan&)>;
    void SetDataSource(DataSource source) MO_EXCLUDES(m_mutex);

    nlohmann::ordered_json Json() const MO_EXCLUDES(m_mutex);

  private:
    nlohmann::ordered_json LunJson(const LunPlan& lun) const MO_REQUIRES(m_mutex);

    const Plan& m_plan;
    mutable Mutex m_mutex;
    std::string m_phase MO_GUARDED_BY(m_mutex) = "starting";
    std::string m_degraded MO_GUARDED_BY(m_mutex);
    std::map<const LunPlan*, uint32_t> m_numbers MO_GUARDED_BY(m_mutex);
    DataSource m_dataSource MO_GUARDED_BY(m_mutex);
};

/// The status for programs, on one line. Names of files that aren't UTF-8 have U+FFFD in the places
/// that aren't.
std::string StatusText(const nlohmann::ordered_json& status);

/// The status for people.
std::string StatusTable(const nlohmann::ordered_json& status);
