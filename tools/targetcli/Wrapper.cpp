#include "tools/targetcli/Wrapper.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <exception>

#include "framework/FindTargetcli.h"
#include "tools/targetcli/FastRoad.h"
#include "tools/targetcli/Preferences.h"
#include "tools/targetcli/RunningLock.h"
#include "tools/targetcli/Settings.h"
#include "tools/targetcli/SupervisedRun.h"
#include "tools/targetcli/UserBackstoreCheck.h"
#include "tools/targetcli/Version.h"

namespace {

constexpr int kPrintPatienceMilliseconds = 1000;

// Writes all of `text`, as far as somebody reads it: a reader that is gone or doesn't read can't
// keep the wrapper from ending.
void Print(int fd, std::string_view text) {
    while (!text.empty()) {
        pollfd writable = {fd, POLLOUT, 0};
        if (poll(&writable, 1, kPrintPatienceMilliseconds) != 1)
            return;
        const ssize_t count = write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (count <= 0)
            return;
        text.remove_prefix(static_cast<size_t>(count));
    }
}

void PrintLine(int fd, std::string line) {
    std::replace(line.begin(), line.end(), '\n', ' ');
    Print(fd, line + "\n");
}

int Complain(const std::string& line, int status) {
    PrintLine(STDERR_FILENO, line);
    return status;
}

bool AskVersion(const Settings& settings, const std::string& real, TimeLimit& limit,
                const Interrupts& interrupts, FastRun& run) {
    TemporaryDirectory home;  // targetcli makes preferences even now
    std::string error;
    if (!home.Make(settings.stateDir, error))
        return false;
    ChildOutput out;
    ChildOutput err;
    const Outcome outcome =
        RunSupervised({real, {"--version"}, home.Path()}, out, err, limit, interrupts);
    run = {outcome, out.Kept(), err.Kept()};
    return true;
}

// Nothing may be printed unless it is the version: both streams reach the gate, which takes the
// third word of whatever comes for one.
int AnswerVersion(const Settings& settings, const std::string& real, TimeLimit& limit,
                  const Interrupts& interrupts) {
    FastRun run;
    if (auto fast = TakeFastRoad({"--version"}, settings, real, limit, interrupts))
        run = *fast;
    else if (!AskVersion(settings, real, limit, interrupts, run))
        return kStatusNotStarted;
    if (!run.outcome.Succeeded())
        return run.outcome.status;
    std::string version = VersionIn(run.out + "\n" + run.err);
    if (!version.empty() && !settings.version.empty())
        version = settings.version;
    const std::string answer = OlderVersionForm(version);
    if (answer.empty())
        return kStatusUsage;
    PrintLine(STDOUT_FILENO, "targetcli version " + answer);
    return 0;
}

int Relay(const Command& command, TimeLimit& limit, const Interrupts& interrupts) {
    ChildOutput out(STDOUT_FILENO);
    ChildOutput err(STDERR_FILENO);
    const Outcome outcome = RunSupervised(command, out, err, limit, interrupts);
    if (!outcome.complaint.empty() || (!outcome.Succeeded() && !err.SaidSomething()))
        PrintLine(STDERR_FILENO, ReasonOf(outcome, out, err));
    return outcome.status;
}

// Standard error is held back until the cause is known, since only its first line is read.
int RelayUserCreate(const UserBackstoreCreate& create, const Settings& settings,
                    const Command& command, TimeLimit& limit, const Interrupts& interrupts) {
    ChildOutput out(STDOUT_FILENO);
    ChildOutput err;
    const Outcome outcome = RunSupervised(command, out, err, limit, interrupts);
    if (!outcome.complaint.empty()) {
        PrintLine(STDERR_FILENO, outcome.complaint);
    } else if (!outcome.Succeeded()) {
        const std::string reported = err.SaidSomething()
                                         ? err.Kept().substr(0, err.Kept().find('\n'))
                                         : ReasonOf(outcome, out, err);
        const std::string cause = ExplainFailedCreate(create, settings.configfsRoot, reported);
        if (!err.Kept().starts_with(cause))
            PrintLine(STDERR_FILENO, cause);
    }
    Print(STDERR_FILENO, err.Kept());
    return outcome.status;
}

int Report(const FastRun& run) {
    if (!run.outcome.complaint.empty())
        PrintLine(STDERR_FILENO, run.outcome.complaint);
    Print(STDOUT_FILENO, run.out);
    Print(STDERR_FILENO, run.err);
    return run.outcome.status;
}

int RunOnce(const std::vector<std::string>& arguments, bool version, const Interrupts& interrupts) {
    Settings settings;
    std::string error;
    if (!ReadSettings(settings, error))
        return version ? kStatusUsage : Complain(error, kStatusUsage);
    const std::string real = FindTargetcli(settings.real, "/proc/self/exe", error);
    if (real.empty())
        return version ? kStatusNotFound : Complain(error, kStatusNotFound);
    TimeLimit limit(settings);
    if (version)
        return AnswerVersion(settings, real, limit, interrupts);
    const UniqueFd running = TakeRunningLock(settings.stateDir);

    if (const auto fast = TakeFastRoad(arguments, settings, real, limit, interrupts))
        return Report(*fast);

    TemporaryDirectory home;
    Preferences preferences(settings, real, limit, interrupts);
    if (const Outcome made = preferences.GiveCopy(home); !made.Succeeded())
        return Complain(made.complaint, made.status);
    const Command command = {real, arguments, home.Path()};
    const auto create = UserBackstoreCreate::Parse(arguments);
    return create ? RelayUserCreate(*create, settings, command, limit, interrupts)
                  : Relay(command, limit, interrupts);
}

}  // namespace

int RunWrapper(const std::vector<std::string>& arguments, const Interrupts& interrupts) {
    const bool version = !arguments.empty() && arguments[0] == "--version";
    try {
        return RunOnce(arguments, version, interrupts);
    } catch (const std::exception& failure) {
        return version ? kStatusNotStarted : Complain(failure.what(), kStatusNotStarted);
    }
}
