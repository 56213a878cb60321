#include "tools/targetcli/FastRoad.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <exception>

#include "framework/UniqueFd.h"
#include "tools/targetcli/CommandLine.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/RoadLog.h"
#include "tools/targetcli/RunningLock.h"
#include "tools/targetcli/Surroundings.h"

namespace {

constexpr char kLock[] = "/var/run/targetcli.lock";
constexpr int kStatusSlowRoad = 99;  // of the child only; what it says is why
constexpr int kStatusHalfWay = 1;

struct FormHandler {
    Form form;
    Answer (*carryOut)(const CommandLine& line, const std::filesystem::path& root);
};
constexpr FormHandler kHandlers[] = {
    {Form::kTargetCreate, CreateTarget},
    {Form::kClosedTargetCreate, CreateClosedTarget},
    {Form::kTargetDelete, DeleteTarget},
    {Form::kAclCreate, CreateAcl},
    {Form::kMappingCreate, CreateMapping},
    {Form::kMappingDelete, DeleteMapping},
    {Form::kFileCreate, CreateFile},
    {Form::kBlockCreate, CreateBlock},
    {Form::kUserCreate, CreateUser},
    {Form::kBackstoreDelete, DeleteBackstore},
    {Form::kLunCreate, CreateLun},
    {Form::kLunDelete, DeleteLun},
    {Form::kLunList, ListLuns},
};

// Waits as the real one does: the supervisor sees who holds it.
UniqueFd TakeLock() {
    UniqueFd lock(open(kLock, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    Require(lock.Valid() && flock(lock.Get(), LOCK_EX) == 0, "targetcli's lock can't be taken");
    return lock;
}

Answer CarryOut(const CommandLine& line, const Settings& settings, const std::string& real) {
    const std::string version = RequireProvenTargetcli(settings, real);
    const UniqueFd lock = TakeLock();
    if (line.form == Form::kVersion)
        return {0, "", real + " version " + version + "\n"};
    const UniqueFd running = TakeRunningLock(settings.stateDir);
    RequirePreparedMachine(settings.configfsRoot);
    for (const FormHandler& handler : kHandlers)
        if (handler.form == line.form)
            return handler.carryOut(line, settings.configfsRoot);
    throw SlowRoad("a form without a fast road");
}

bool WriteAll(int fd, std::string_view text) {
    while (!text.empty()) {
        const ssize_t count = write(fd, text.data(), text.size());
        if (count <= 0)
            return false;
        text.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

// What the child does. Its output is kept by the wrapper, and only a list, which changes nothing,
// can be longer than is kept.
int Work(const CommandLine& line, const Settings& settings, const std::string& real) {
    try {
        const Answer answer = CarryOut(line, settings, real);
        Require(answer.out.size() <= ChildOutput::kCapacity, "a list too long to be kept");
        WriteAll(STDOUT_FILENO, answer.out);
        WriteAll(STDERR_FILENO, answer.err);
        return answer.status;
    } catch (const SlowRoad& why) {
        WriteAll(STDERR_FILENO, why.what());
        return kStatusSlowRoad;
    } catch (const std::exception& failure) {
        WriteAll(STDERR_FILENO, std::string(failure.what()) + "\n");
        return ConfigfsChange::AnyBegun() ? kStatusHalfWay : kStatusSlowRoad;
    }
}

}  // namespace

std::optional<FastRun> TakeFastRoad(const std::vector<std::string>& arguments,
                                    const Settings& settings, const std::string& real,
                                    TimeLimit& limit, const Interrupts& interrupts) {
    auto line = CommandLine::Parse(arguments);
    if (!line) {
        NoteRoad(settings.stateDir, "slow", "other", "a line of no known form");
        return std::nullopt;
    }
    if (line->form == Form::kTargetCreate && settings.closedTargets)
        line->form = Form::kClosedTargetCreate;
    ChildOutput out;
    ChildOutput err;
    const Command command = {real, arguments, "", [&] { return Work(*line, settings, real); }};
    Outcome outcome = RunSupervised(command, out, err, limit, interrupts);
    // As with the real one: a failure never says nothing, or the plug-in would take it for success.
    if (!outcome.Succeeded() && !err.SaidSomething())
        outcome.complaint = ReasonOf(outcome, out, err);
    if (outcome.status == kStatusSlowRoad) {
        NoteRoad(settings.stateDir, "slow", line->name, err.Kept());
        return std::nullopt;
    }
    NoteRoad(settings.stateDir, outcome.complaint.empty() ? "fast" : "lost", line->name,
             outcome.complaint);
    return FastRun{outcome, out.Kept(), err.Kept()};
}
