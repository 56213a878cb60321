#include "adapters/targetcli/RealTargetcli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>

namespace {

bool IsProgram(const std::string& path, struct stat& info) {
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

}  // namespace

std::string FindRealTargetcli(const std::string& configured, std::string& error) {
    struct stat self = {};
    struct stat found = {};
    const bool knowsItself = stat("/proc/self/exe", &self) == 0;
    const auto isSelf = [&] {
        return knowsItself && found.st_dev == self.st_dev && found.st_ino == self.st_ino;
    };

    if (!configured.empty()) {
        if (IsProgram(configured, found) && !isSelf())
            return configured;
        error = "MOSCSI_TARGETCLI_REAL=" + configured + " is not the real targetcli program";
        return {};
    }

    const char* path = getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    std::string result;
    bool passedItself = false;
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string candidate = (directory.empty() ? "." : directory) + "/targetcli";
        if (!IsProgram(candidate, found))
            continue;
        if (isSelf()) {
            if (!passedItself) {
                passedItself = true;
                result.clear();
            }
        } else if (result.empty()) {
            result = candidate;
        }
    }
    if (result.empty())
        error = "targetcli is not installed: install the package targetcli-fb";
    return result;
}
