// A targetcli that hangs in the kernel survives SIGKILL. No process here does that at will, so
// kill(2) is made to do nothing (-Wl,--wrap=kill).
#include <gmock/gmock.h>
#include <sys/wait.h>

#include <csignal>
#include <string>

#include "adapters/targetcli/Interrupts.h"
#include "adapters/targetcli/Settings.h"
#include "adapters/targetcli/SupervisedRun.h"

extern "C" int __real_kill(pid_t pid, int number);
extern "C" int __wrap_kill(pid_t, int) {
    return 0;
}

namespace moscsi::wrapper {
namespace {

TEST(StuckTargetcli, IsNamedWithWhatItWaitsForAndLeftBehind) {
    Settings settings = {.stateDir = "/nonexistent",
                         .configfsRoot = {},
                         .real = {},
                         .version = {},
                         .timeLimit = std::chrono::seconds(1),
                         .lockWait = std::chrono::seconds(20)};
    TimeLimit limit(settings);
    const Interrupts interrupts;
    ChildOutput out;
    ChildOutput err;
    const Outcome outcome = runSupervised({"/bin/sh", {"-c", "echo $$; exec sleep 1000"}, "/"}, out,
                                          err, limit, interrupts);

    const pid_t pid = std::stoi(out.kept());
    ASSERT_GT(pid, 0);
    EXPECT_EQ(waitpid(pid, nullptr, WNOHANG), 0) << "it was waited for";
    __real_kill(pid, SIGKILL);
    EXPECT_EQ(waitpid(pid, nullptr, 0), pid);

    EXPECT_EQ(outcome.status, kStatusLimit);
    EXPECT_THAT(
        outcome.complaint,
        testing::MatchesRegex("targetcli, process [0-9]+, did not end within 1 s; process " +
                              std::to_string(pid) +
                              " can't be ended, it hangs in the kernel \\(state S, in "
                              "[a-z_]*nanosleep[a-z_.0-9]*\\) and is left behind"));
}

}  // namespace
}  // namespace moscsi::wrapper
