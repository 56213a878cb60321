#include "tools/targetcli/Preferences.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <sstream>
#include <utility>
#include <vector>

#include "framework/FileLocks.h"
#include "framework/UniqueFd.h"
#include "tools/targetcli/Proc.h"

namespace {

namespace fs = std::filesystem;

constexpr int kStatusFailed = 1;
constexpr int kLockPollMilliseconds = 50;

// The log's place is kept as an absolute path, which would be the directory that the set was made
// in; and several runs would write to one file.
constexpr std::array<const char*, 3> kWanted = {"auto_add_mapped_luns=false",
                                                "auto_use_daemon=false", "logfile=/dev/null"};
constexpr char kClosed[] = "auto_enable_tpgt=false";

std::string KeyOf(const std::string& program) {
    struct stat info = {};
    stat(program.c_str(), &info);
    std::ostringstream key;
    key << std::hex << info.st_ino << '-' << info.st_size << '-' << info.st_mtim.tv_sec;
    return key.str();
}

bool HasLine(const std::string& text, const std::string& wanted) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);)
        if (line == wanted)
            return true;
    return false;
}

Outcome Failed(const std::string& why, int status = kStatusFailed) {
    return {status, "targetcli's preferences can't be made: " + why};
}

}  // namespace

Preferences::Preferences(const Settings& settings, std::string real, TimeLimit& limit,
                         const Interrupts& interrupts)
    : m_settings(settings),
      m_real(std::move(real)),
      m_set(settings.stateDir /
            ((settings.closedTargets ? "preferences.closed." : "preferences.") + KeyOf(m_real))),
      m_limit(limit),
      m_interrupts(interrupts) {}

Outcome Preferences::GiveCopy(TemporaryDirectory& copy) {
    std::string error;
    if (!copy.Make(m_settings.stateDir, error))
        return {kStatusFailed, error};
    if (Outcome made = MakeOnce(); !made.Succeeded())
        return made;
    std::error_code failure;
    fs::copy(m_set, copy.Path(), fs::copy_options::recursive, failure);
    return failure ? Failed("no copy of " + m_set.string() + ": " + failure.message()) : Outcome{};
}

Outcome Preferences::MakeOnce() {
    if (access(m_set.c_str(), F_OK) == 0)
        return {};
    const UniqueFd lock(
        open((m_settings.stateDir / "lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    if (!lock.Valid())
        return Failed(std::string("no lock: ") + strerror(errno));
    Outcome result = Take(lock.Get());
    if (result.Succeeded() && access(m_set.c_str(), F_OK) != 0)
        result = Make();
    return result;
}

Outcome Preferences::Take(int lockFd) {
    while (flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        if (m_limit.Expired()) {
            return Failed(NameProcess(LockHolderOf(lockFd)) + " is making them, for " +
                              std::to_string(m_limit.Limit().count()) + " s already",
                          kStatusLimit);
        }
        pollfd interrupt = {m_interrupts.Fd(), POLLIN, 0};
        poll(&interrupt, 1, kLockPollMilliseconds);
        if (const int number = m_interrupts.Take(); number != 0)
            return Failed(std::string("interrupted by ") + strsignal(number), 128 + number);
    }
    return {};
}

Outcome Preferences::Make() {
    TemporaryDirectory directory;
    std::string error;
    if (!directory.Make(m_settings.stateDir, error))
        return {kStatusFailed, error};
    std::vector<std::string> wanted(kWanted.begin(), kWanted.end());
    if (m_settings.closedTargets)
        wanted.emplace_back(kClosed);
    std::vector<std::string> set = {"set", "global"};
    set.insert(set.end(), wanted.begin(), wanted.end());
    const std::vector<std::string> get = {"get", "global"};

    std::string settings;
    for (const auto& step : {set, get}) {
        ChildOutput out;
        ChildOutput err;
        const Outcome outcome =
            RunSupervised({m_real, step, directory.Path()}, out, err, m_limit, m_interrupts);
        if (!outcome.Succeeded())
            return Failed(ReasonOf(outcome, out, err), outcome.status);
        settings = out.Kept();
    }
    for (const std::string& setting : wanted)
        if (!HasLine(settings, setting))
            return Failed(setting + " was set, but `get global` doesn't show it");
    const int renamed = directory.RenameTo(m_set);
    return renamed == 0 ? Outcome{} : Failed(strerror(renamed));
}
