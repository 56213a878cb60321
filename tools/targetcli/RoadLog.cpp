#include "tools/targetcli/RoadLog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <ctime>

#include "framework/UniqueFd.h"

namespace {

constexpr off_t kLargest = 1 << 20;

std::string Now() {
    const time_t now = time(nullptr);
    tm utc = {};
    gmtime_r(&now, &utc);
    std::array<char, 32> text = {};
    strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%SZ", &utc);
    return text.data();
}

}  // namespace

void NoteRoad(const std::filesystem::path& stateDir, const std::string& road,
              const std::string& form, const std::string& why) {
    std::error_code ignored;
    std::filesystem::create_directories(stateDir, ignored);
    const std::filesystem::path file = stateDir / "roads";
    const UniqueFd fd(open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644));
    std::string line = Now() + " " + road + " " + form;
    if (!why.empty())
        line += ": " + why;
    std::replace(line.begin(), line.end(), '\n', ' ');
    line += '\n';
    [[maybe_unused]] const ssize_t written = write(fd.Get(), line.data(), line.size());
    // Of several that find it full only one may rename it, and not the next one's file.
    struct stat status = {};
    struct stat named = {};
    if (fstat(fd.Get(), &status) == 0 && status.st_size > kLargest &&
        flock(fd.Get(), LOCK_EX | LOCK_NB) == 0 && stat(file.c_str(), &named) == 0 &&
        named.st_ino == status.st_ino)
        rename(file.c_str(), (stateDir / "roads.old").c_str());
}
