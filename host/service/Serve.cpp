#include "host/service/Serve.h"

#include <fmt/format.h>

#include <csignal>
#include <cstdlib>
#include <system_error>

#include "framework/QueuedOutput.h"
#include "host/service/HostLock.h"
#include "host/service/HostLog.h"
#include "host/service/ProcessStart.h"
#include "host/service/ServeRun.h"

namespace {

/// A reader of standard output that goes away must not end the service. A handler, unlike ignoring,
/// isn't inherited by the programs that the plug-in starts.
void SurviveBrokenPipes() {
    struct sigaction action {};
    action.sa_handler = [](int) {};
    action.sa_flags = SA_RESTART;
    sigaction(SIGPIPE, &action, nullptr);
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
    ServeRun* run = nullptr;
    try {
        run = new ServeRun(plan, environment, options, console);
    } catch (const std::system_error& error) {
        console.Complain(fmt::format(
            "no thread for the stop's signals ({}): raise the limit of processes", error.what()));
        return 1;
    }
    return run->Run();
}
