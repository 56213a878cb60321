#include "host/service/ServeRun.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>

#include "framework/ExceptionOf.h"

namespace {

constexpr std::chrono::seconds kStopBase{30};
constexpr std::chrono::seconds kStopPerObject{3};

}  // namespace

ServeRun::ServeRun(const Plan& plan, const Environment& environment, const ServeOptions& options,
                   Console& console)
    : m_plan(plan),
      m_environment(environment),
      m_options(options),
      m_console(console),
      m_files(plan, environment.stateDirectory),
      m_closed(environment.runDirectory, environment.configfs),
      m_roads(environment.runDirectory),
      m_roadCounters(
          MoStatistics::Register("targetcli roads", [this] { return m_roads.Counters(); })),
      m_stop(environment.runDirectory,
             kStopBase + kStopPerObject * static_cast<int>(plan.ObjectCount()),
             [this] { GiveUp(); }),
      m_status(plan),
      m_server(environment.runDirectory / "host.sock",
               [this] { return StatusText(m_status.Json()); }) {}

ConfigfsView ServeRun::Look() const {
    ConfigfsView view = ReadConfigfs(m_environment.configfs);
    for (TargetView& target : view.targets)
        for (PortalGroupView& group : target.groups)
            group.opensLater = m_closed.Noted(target.name);
    return view;
}

int ServeRun::Run() {
    if (!Load())
        return 1;
    bool good = false;
    if (const auto fault = ExceptionOf([&] { good = ServeAndStop(); }))
        Degrade(*fault);
    if (m_degraded)
        StayDegraded();
    m_server.Stop();
    m_stop.End();
    return good && !m_degraded ? 0 : 1;
}

/// Returns: whether everything was served, and is gone.
bool ServeRun::ServeAndStop() {
    const bool served = Start() && WaitForBus() && WaitForEarlier() && Apply();
    if (served) {
        m_status.SetPhase("ready");
        m_console.Say(fmt::format("serving {} target(s), port {}; stop with SIGINT or SIGTERM",
                                  m_plan.targets.size(), m_plan.port));
        m_console.Announce("ready");
        m_stop.Wait();
        m_console.Say("stopping");
        TakeDown(true);
    }
    if (m_degraded)
        return false;
    const bool ended = CleanUp();
    if (ended && m_clean)
        m_data.Stop();
    if (!served && m_stop.Asked())
        m_console.Say("stopped before anything was served");
    return ended && m_clean && served;
}
