#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "host/kernel/Compare.h"
#include "host/service/ClosedTargets.h"
#include "host/service/Console.h"
#include "host/service/Environment.h"
#include "host/service/FileLuns.h"
#include "host/service/GuardedPlatform.h"
#include "host/service/PlanExecutor.h"
#include "host/service/RoadReport.h"
#include "host/service/Serve.h"
#include "host/service/StopSignals.h"
#include "host/service/UserData.h"
#include "host/status/HostStatus.h"
#include "host/status/StatusSocket.h"

/// One run of `serve`, from the plug-in's load to the exit status: ServeRun.cpp has its course,
/// ServeRunStart.cpp what comes before the first change, ServeRunApply.cpp the plan's way into the
/// kernel, ServeRunStop.cpp every way out.
///
/// Thread: the main one; the stop's and the status socket's come in by the callbacks that they are
/// given. Never destroyed: threads of the plug-in, and with contexts still out those of the LUNs,
/// may use it until the process ends.
class ServeRun {
  public:
    ServeRun(const Plan& plan, const Environment& environment, const ServeOptions& options,
             Console& console);
    ServeRun(const ServeRun&) = delete;
    ServeRun& operator=(const ServeRun&) = delete;

    /// Returns: the exit status. Call it once.
    int Run();

  private:
    bool ServeAndStop();
    void Degrade(const std::string& reason);
    void StayDegraded();
    bool Load();
    bool Start();
    bool WaitForBus();
    bool WaitForEarlier();
    bool PrepareData();
    bool NoteLuns();
    bool Apply();
    void TakeDown(bool all);
    bool CleanUp();
    [[noreturn]] void GiveUp();

    ConfigfsView Look() const;
    bool NoteNewTargets();
    bool OpenTargets();

    void TellRoads() {
        if (const std::string line = m_roads.News(); !line.empty())
            m_console.Say(line);
    }

    bool Fail(const std::string& line) {
        m_console.Complain(line);
        return false;
    }

    bool Refuse(const std::vector<std::string>& lines, const std::string& summary) {
        for (const std::string& line : lines)
            m_console.Complain(line);
        return lines.empty() || Fail(summary);
    }

    const Plan& m_plan;
    const Environment& m_environment;
    const ServeOptions& m_options;
    Console& m_console;
    FileLuns m_files;
    ClosedTargets m_closed;
    RoadReport m_roads;
    const std::unique_ptr<MoStatistics::Registration> m_roadCounters;
    StopSignals m_stop;
    HostStatus m_status;
    MoScsiSrvPlatform* m_plugin = nullptr;
    std::unique_ptr<GuardedPlatform> m_platform;  // m_plugin, for everything but transfers
    std::atomic<bool> m_degraded{false};
    Manner m_manner;
    ConfigfsView m_before;
    UserData m_data;
    std::unique_ptr<PlanExecutor> m_executor;
    bool m_clean = true;    // nothing failed, nothing of ours is left
    StatusServer m_server;  // last: its thread reads the others
};
