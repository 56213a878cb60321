#include <fmt/format.h>
#include <unistd.h>

#include <filesystem>
#include <system_error>

#include "framework/ExceptionOf.h"
#include "framework/QueuedOutput.h"
#include "host/service/BusWait.h"
#include "host/service/ServeRun.h"

namespace {

constexpr std::chrono::seconds kRunnerLimit{15};  // the runner itself gives up after 10 s

}  // namespace

void ServeRun::TakeDown(bool all) {
    m_status.SetPhase("stopping");
    m_stop.Begin();
    const auto outOfTime = [this] { return m_degraded || m_stop.OutOfTime(); };
    const bool done = all ? m_executor->TakeDownAll(Look(), outOfTime)
                          : m_executor->TakeDownMade(Look(), outOfTime);
    if (m_degraded)
        return;
    TellRoads();
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

bool ServeRun::CleanUp() {
    m_stop.Begin();
    RunStep(m_console, "clean up the platform", [&] { return m_platform->Cleanup(); });
    return WaitForBusNameGone(kRunnerLimit) ||
           Fail("the plug-in's runner didn't end, or left devices open: see its log lines");
}

/// A step that doesn't end can't be ended from outside; the process can.
void ServeRun::GiveUp() {
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
void ServeRun::Degrade(const std::string& reason) {
    m_degraded = true;
    m_status.SetDegraded(reason);
    m_console.Complain("degraded: " + reason);
}

/// Nothing is taken down: whatever would do it may wait for a lock for ever, or do half of it.
void ServeRun::StayDegraded() {
    if (m_executor && !m_stop.Asked()) {
        m_console.Complain("I/O goes on; stop with SIGINT or SIGTERM, and start again");
        m_stop.Wait();
    }
    m_console.Complain(
        "what is in the kernel's target stays until the next start with the same file");
}
