#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <map>
#include <string>

#include "framework/MoStatistics.h"
#include "framework/Mutex.h"

/// Which way the targetcli commands of this run went, as the wrapper notes it in
/// RUN/targetcli/roads
/// ("2026-01-31T12:00:01Z slow ACL create: no such target"): fast, in configfs; slow, by the real
/// targetcli; lost, ended by a limit or a signal.
///
/// Thread: any.
class RoadReport {
  public:
    /// Counts what is noted from now on.
    explicit RoadReport(const std::filesystem::path& runDirectory);

    /// What was noted since the last call. Returns: one line; empty when nothing was.
    std::string News() MO_EXCLUDES(m_mutex);

    /// All that was noted.
    MoStatistics::Counters Counters() MO_EXCLUDES(m_mutex);

  private:
    void Read() MO_REQUIRES(m_mutex);
    uint64_t Fresh(const char* road) MO_REQUIRES(m_mutex) { return m_roads[road] - m_told[road]; }

    const std::filesystem::path m_file;
    Mutex m_mutex;
    ino_t m_inode MO_GUARDED_BY(m_mutex) = 0;
    off_t m_offset MO_GUARDED_BY(m_mutex) = 0;
    std::map<std::string, uint64_t> m_roads MO_GUARDED_BY(m_mutex);  ///< by road
    std::map<std::string, uint64_t> m_told MO_GUARDED_BY(m_mutex);   ///< the same, at the last call
    std::map<std::string, uint64_t> m_reasons MO_GUARDED_BY(m_mutex);  ///< "form: why", since then
};
