#include "host/service/Serve.h"

#include <fmt/format.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <csignal>
#include <nlohmann/json.hpp>
#include <system_error>

#include "framework/ExceptionOf.h"
#include "framework/QueuedOutput.h"
#include "host/service/BusWait.h"
#include "host/service/ClosedTargets.h"
#include "host/service/EarlierCommands.h"
#include "host/service/FileLuns.h"
#include "host/service/GuardedPlatform.h"
#include "host/service/HostLock.h"
#include "host/service/HostLog.h"
#include "host/service/PlanExecutor.h"
#include "host/service/Plugin.h"
#include "host/service/ProcessStart.h"
#include "host/service/StopSignals.h"
#include "host/service/UserData.h"
#include "host/status/HostStatus.h"
#include "host/status/StatusSocket.h"

namespace {

constexpr char kOldestTargetcli[] = "2.1.fb41";  // as text, as the plug-in compares it
constexpr std::chrono::seconds kBusLimit{20};
constexpr std::chrono::seconds kCommandLimit{150};  // the wrapper gives up after 20 s and 120 s
constexpr std::chrono::seconds kStopBase{30};
constexpr std::chrono::seconds kStopPerObject{3};
constexpr std::chrono::seconds kRunnerLimit{15};  // the runner itself gives up after 10 s

/// A reader of standard output that goes away must not end the service. A handler, unlike ignoring,
/// isn't inherited by the programs that the plug-in starts.
void SurviveBrokenPipes() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
}

class Service {
  public:
    Service(const Plan& plan, const Environment& environment, const ServeOptions& options,
            Console& console)
        : m_plan(plan),
          m_environment(environment),
          m_options(options),
          m_console(console),
          m_files(plan, environment.stateDirectory),
          m_closed(environment.runDirectory, environment.configfs),
          m_stop(environment.runDirectory,
                 kStopBase + kStopPerObject * static_cast<int>(plan.ObjectCount()),
                 [this] { GiveUp(); }),
          m_status(plan),
          m_server(environment.runDirectory / "host.sock",
                   [this] { return StatusText(m_status.Json()); }) {}

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

ConfigfsView Service::Look() const {
    ConfigfsView view = ReadConfigfs(m_environment.configfs);
    for (TargetView& target : view.targets)
        for (PortalGroupView& group : target.groups)
            group.opensLater = m_closed.Noted(target.name);
    return view;
}

bool Service::Load() {
    if (const std::string fault = m_server.Start(); !fault.empty())
        return Fail(fault);
    std::string error;
    m_plugin = LoadPlugin(m_environment.library, error);
    if (m_plugin == nullptr)
        return Fail(error);
    m_platform = std::make_unique<GuardedPlatform>(
        *m_plugin, [this](const std::string& reason) { Degrade(reason); });
    return true;
}

bool Service::Start() {
    const CRyError result =
        RunStep(m_console, "initialise the platform", [&] { return m_platform->Initialize(); });
    if (!result.IsError()) {
        const std::string version = TargetcliVersion();
        if (version.empty())
            return Fail(
                "targetcli doesn't say its version any more: see what `targetcli --version` says, "
                "and start again");
        m_manner = Manner::Of(version);
        m_console.Say(fmt::format("targetcli {}: user LUNs are made through {}", version,
                                  m_manner.userByConfigfs ? "configfs" : "targetcli"));
        return true;
    }
    // What the plug-in makes of it, then the cause: a targetcli that couldn't answer looks old to
    // it.
    m_console.Complain(result.Message());
    if (const std::string words = StartComplaint(m_environment); !words.empty())
        return Fail(words);
    if (const std::string version = TargetcliVersion(); version >= kOldestTargetcli)
        return Fail(fmt::format("targetcli answers by now, as {}: start again", version));
    return false;
}

bool Service::WaitForBus() {
    if (!m_plan.HasUserLuns())
        return true;
    const CRyError result =
        RunStep(m_console, "wait for the user backstores' objects on D-Bus", [this] {
            const std::string lacking =
                WaitForBusObjects(kBusLimit, [this] { return m_stop.Asked(); });
            return lacking.empty() ? CRyError::Success()
                                   : FXErrorUtil::ErrorErrNo(
                                         FXCodeLocation(__FILE__, __PRETTY_FUNCTION__, __LINE__),
                                         ENODEV, "%s", lacking.c_str());
        });
    return !result.IsError() || Fail(result.Message());
}

// After the runner's start: that frees a command which waits in the kernel for the earlier host.
bool Service::WaitForEarlier() {
    const pid_t running = EarlierCommand(m_environment.runDirectory);
    if (running == 0)
        return true;
    m_console.Say(
        fmt::format("waiting for a targetcli that an earlier host started (process {})", running));
    const pid_t left = WaitForEarlierCommands(m_environment.runDirectory, kCommandLimit,
                                              [this] { return m_stop.Asked(); });
    return left == 0 || m_stop.Asked() ||
           Fail(fmt::format("process {} of an earlier host's targetcli still runs: kill -9 {}",
                            left, left));
}

/// Before initiators see a LUN it is on record; afterwards its number, too.
bool Service::NoteLuns() {
    const std::string fault =
        m_files.Note(m_before, [this](const LunPlan& lun) { return m_executor->NumberOf(lun); });
    return fault.empty() || Fail(fault);
}

bool Service::NoteNewTargets() {
    for (const TargetPlan& target : m_plan.targets)
        if (m_before.Target(target.name) == nullptr)
            if (const std::string fault = m_closed.Note(target.name); !fault.empty())
                return Fail(fault);
    return true;
}

bool Service::OpenTargets() {
    for (const TargetPlan& target : m_plan.targets)
        if (m_closed.Noted(target.name))
            if (const std::string fault = m_closed.Open(target.name); !fault.empty())
                return Fail(fault);
    return true;
}

bool Service::PrepareData() {
    for (const std::string& line : m_files.Missing(m_before))
        m_console.Complain(line);
    if (const std::string fault = m_files.LockKernelFiles(); !fault.empty())
        return Fail(fault);
    std::set<const LunPlan*> lost = LostMemory(m_plan, m_before);
    for (const LunPlan* lun : lost)
        m_console.Say(fmt::format(
            "{} of {}: the data went with the process that held it; {}", lun->Title(), lun->target,
            m_options.discardLostMemory
                ? "it is served empty, as --discard-lost-memory says"
                : "it answers NOT READY; --discard-lost-memory serves it empty"));
    if (m_options.discardLostMemory)
        lost.clear();
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (const std::string faults = lun.FaultText(); !faults.empty())
                m_console.Say(fmt::format("{} of {} is served with {}, as the file says",
                                          lun.Title(), target.name, faults));
    for (const std::string& line : Unserved(m_plan, m_before))
        m_console.Say(line);
    for (const LunPlan* lun : m_plan.Missing())
        lost.insert(lun);
    const std::string fault = m_data.Make(m_plan, lost, *m_plugin);
    if (!fault.empty())
        return Fail(fault);
    m_data.SetTimeOuts(m_plan, m_before);
    m_status.SetDataSource([this](const LunPlan& lun) { return m_data.Statistics(lun); });
    return true;
}

bool Service::Apply() {
    m_before = Look();
    if (!Refuse(ConflictsBefore(m_plan, m_before, m_manner),
                "the kernel's target disagrees with " + m_plan.file + "; nothing was changed") ||
        !PrepareData())
        return false;

    m_status.SetPhase("applying");
    m_executor = std::make_unique<PlanExecutor>(
        m_plan, *m_platform, m_console, m_manner,
        [this](const LunPlan& lun) { return m_data.Of(lun); },
        [this](const LunPlan& lun) { return m_files.FormerNumber(lun); });
    bool good = NoteLuns() && NoteNewTargets() &&
                m_executor->Apply(m_before, [this] { return m_stop.Asked(); });
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (const auto number = m_executor->NumberOf(lun))
                m_status.SetNumber(lun, *number);
    if (good && NoteLuns()) {
        const ConfigfsView after = Look();
        m_data.SetTimeOuts(m_plan, after);
        good =
            Refuse(FaultsAfter(m_plan, after, m_manner),
                   "what was made is not what " + m_plan.file + " says; it is taken down again") &&
            OpenTargets();
    } else {
        good = false;
    }
    if (!good && !m_degraded)
        TakeDown(false);
    return good;
}

void Service::TakeDown(bool all) {
    m_status.SetPhase("stopping");
    m_stop.Begin();
    const auto outOfTime = [this] { return m_degraded || m_stop.OutOfTime(); };
    const bool done = all ? m_executor->TakeDownAll(Look(), outOfTime)
                          : m_executor->TakeDownMade(Look(), outOfTime);
    if (m_degraded)
        return;
    if (!done && m_stop.OutOfTime())
        m_console.Complain("the time for stopping is over");
    const ConfigfsView left = Look();
    for (const TargetPlan& target : m_plan.targets)
        if (left.Target(target.name) == nullptr)
            m_closed.Forget(target.name);
    m_clean = Refuse(Leftovers(m_plan, all ? ConfigfsView() : m_before, left),
                     "not everything could be taken down") &&
              m_clean;
}

bool Service::CleanUp() {
    m_stop.Begin();
    RunStep(m_console, "clean up the platform", [&] { return m_platform->Cleanup(); });
    return WaitForBusNameGone(kRunnerLimit) ||
           Fail("the plug-in's runner didn't end, or left devices open: see its log lines");
}

/// A step that doesn't end can't be ended from outside; the process can.
void Service::GiveUp() {
    ExceptionOf([this] {
        m_console.Complain(
            "a step of the stop doesn't end, and the time for it is over: what is still "
            "in the kernel's target stays until the next start with the same file");
        // Neither thread is joined here: the one that hangs may be anywhere.
        std::error_code ignored;
        std::filesystem::remove(m_environment.runDirectory / "host.sock", ignored);
        m_stop.EndLimit();
        QueuedOutput::Flush();
    });
    _exit(1);
}

/// From now on the host serves what is there, and does nothing else.
void Service::Degrade(const std::string& reason) {
    m_degraded = true;
    m_status.SetDegraded(reason);
    m_console.Complain("degraded: " + reason);
}

/// Nothing is taken down: whatever would do it may wait for a lock for ever, or do half of it.
void Service::StayDegraded() {
    if (m_executor && !m_stop.Asked()) {
        m_console.Complain("I/O goes on; stop with SIGINT or SIGTERM, and start again");
        m_stop.Wait();
    }
    m_console.Complain(
        "what is in the kernel's target stays until the next start with the same file");
}

int Service::Run() {
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
bool Service::ServeAndStop() {
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

}  // namespace

int Serve(const Plan& plan, const Config& config, const Environment& environment,
          const ServeOptions& options, Console& console) {
    StopSignals::Block();
    SurviveBrokenPipes();
    QueuedOutput::FlushAtFaults();
    PrepareSearchPath(environment);
    setenv("MOSCSI_TARGETCLI_CLOSED", "1", 1);  // new targets open last: ClosedTargets.h
    g_ptrLogWriter =
        MakeHostLog(config.logToSyslog, options.logLevel.value_or(config.logLevel.value_or(0)));

    HostLock lock;
    std::string fault = MissingPrerequisite(environment);
    if (fault.empty())
        fault = lock.Take(environment.runDirectory);
    if (!fault.empty()) {
        console.Complain(fault);
        return 1;
    }
    if (const std::string line = RaiseDescriptorLimit(plan); !line.empty())
        console.Complain(line);
    // Never destroyed: threads of the plug-in, and with contexts still out those of the LUNs, may
    // use it until the process ends.
    Service* service = nullptr;
    try {
        service = new Service(plan, environment, options, console);
    } catch (const std::system_error& error) {
        console.Complain(fmt::format(
            "no thread for the stop's signals ({}): raise the limit of processes", error.what()));
        return 1;
    }
    return service->Run();
}
