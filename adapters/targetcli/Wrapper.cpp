#include "adapters/targetcli/Wrapper.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <exception>

#include "adapters/targetcli/Preferences.h"
#include "adapters/targetcli/RealTargetcli.h"
#include "adapters/targetcli/Settings.h"
#include "adapters/targetcli/SupervisedRun.h"
#include "adapters/targetcli/UserBackstoreCheck.h"
#include "adapters/targetcli/Version.h"

namespace moscsi::wrapper {
namespace {

constexpr int kPrintPatienceMilliseconds = 1000;

// Writes all of `text`, as far as somebody reads it: a reader that is gone or doesn't read can't
// keep the wrapper from ending.
void print(int fd, std::string_view text) {
    while (!text.empty()) {
        pollfd writable = {fd, POLLOUT, 0};
        if (poll(&writable, 1, kPrintPatienceMilliseconds) != 1) {
            return;
        }
        const ssize_t count = write(fd, text.data(), std::min<size_t>(text.size(), PIPE_BUF));
        if (count <= 0) {
            return;
        }
        text.remove_prefix(static_cast<size_t>(count));
    }
}

void printLine(int fd, std::string line) {
    std::replace(line.begin(), line.end(), '\n', ' ');
    print(fd, line + "\n");
}

int complain(const std::string& line, int status) {
    printLine(STDERR_FILENO, line);
    return status;
}

// Nothing may be printed unless it is the version: both streams reach the gate, which takes the
// third word of whatever comes for one.
int answerVersion(const Settings& settings, const std::string& real, TimeLimit& limit,
                  const Interrupts& interrupts) {
    TemporaryDirectory home;  // targetcli makes preferences even now
    std::string error;
    if (!home.make(settings.stateDir, error)) {
        return kStatusNotStarted;
    }
    ChildOutput out;
    ChildOutput err;
    const Outcome outcome =
        runSupervised({real, {"--version"}, home.path()}, out, err, limit, interrupts);
    if (!outcome.succeeded()) {
        return outcome.status;
    }
    std::string version = versionIn(out.kept() + "\n" + err.kept());
    if (!version.empty() && !settings.version.empty()) {
        version = settings.version;
    }
    const std::string answer = olderVersionForm(version);
    if (answer.empty()) {
        return kStatusUsage;
    }
    printLine(STDOUT_FILENO, "targetcli version " + answer);
    return 0;
}

int relay(const Command& command, TimeLimit& limit, const Interrupts& interrupts) {
    ChildOutput out(STDOUT_FILENO);
    ChildOutput err(STDERR_FILENO);
    const Outcome outcome = runSupervised(command, out, err, limit, interrupts);
    if (!outcome.complaint.empty() || (!outcome.succeeded() && !err.saidSomething())) {
        printLine(STDERR_FILENO, reasonOf(outcome, out, err));
    }
    return outcome.status;
}

// Standard error is held back until the cause is known, since only its first line is read.
int relayUserCreate(const UserBackstoreCreate& create, const Settings& settings,
                    const Command& command, TimeLimit& limit, const Interrupts& interrupts) {
    ChildOutput out(STDOUT_FILENO);
    ChildOutput err;
    const Outcome outcome = runSupervised(command, out, err, limit, interrupts);
    if (!outcome.complaint.empty()) {
        printLine(STDERR_FILENO, outcome.complaint);
    } else if (!outcome.succeeded()) {
        const std::string reported = err.saidSomething()
                                         ? err.kept().substr(0, err.kept().find('\n'))
                                         : reasonOf(outcome, out, err);
        const std::string cause = explainFailedCreate(create, settings.configfsRoot, reported);
        if (!err.kept().starts_with(cause)) {
            printLine(STDERR_FILENO, cause);
        }
    }
    print(STDERR_FILENO, err.kept());
    return outcome.status;
}

int runOnce(const std::vector<std::string>& arguments, bool version, const Interrupts& interrupts) {
    Settings settings;
    std::string error;
    if (!readSettings(settings, error)) {
        return version ? kStatusUsage : complain(error, kStatusUsage);
    }
    const std::string real = findRealTargetcli(settings.real, error);
    if (real.empty()) {
        return version ? kStatusNotFound : complain(error, kStatusNotFound);
    }
    TimeLimit limit(settings);
    if (version) {
        return answerVersion(settings, real, limit, interrupts);
    }

    TemporaryDirectory home;
    Preferences preferences(settings, real, limit, interrupts);
    if (const Outcome made = preferences.giveCopy(home); !made.succeeded()) {
        return complain(made.complaint, made.status);
    }
    const Command command = {real, arguments, home.path()};
    const auto create = UserBackstoreCreate::parse(arguments);
    return create ? relayUserCreate(*create, settings, command, limit, interrupts)
                  : relay(command, limit, interrupts);
}

}  // namespace

int runWrapper(const std::vector<std::string>& arguments, const Interrupts& interrupts) {
    const bool version = !arguments.empty() && arguments[0] == "--version";
    try {
        return runOnce(arguments, version, interrupts);
    } catch (const std::exception& failure) {
        return version ? kStatusNotStarted : complain(failure.what(), kStatusNotStarted);
    }
}

}  // namespace moscsi::wrapper
