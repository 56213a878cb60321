#include <fmt/format.h>

#include <cerrno>

#include "host/service/BusWait.h"
#include "host/service/EarlierCommands.h"
#include "host/service/Plugin.h"
#include "host/service/ServeRun.h"

namespace {

constexpr char kOldestTargetcli[] = "2.1.fb41";  // as text, as the plug-in compares it
constexpr std::chrono::seconds kBusLimit{20};
constexpr std::chrono::seconds kCommandLimit{150};  // the wrapper gives up after 20 s and 120 s

}  // namespace

bool ServeRun::Load() {
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

bool ServeRun::Start() {
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

bool ServeRun::WaitForBus() {
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
bool ServeRun::WaitForEarlier() {
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
