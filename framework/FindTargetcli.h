#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>

/// Which targetcli the wrapper runs: for the wrapper, and for who wants to know beforehand. Header
/// only, for programs that link nothing of the framework. Thread: any, while none changes the
/// environment.

/// Whether `path` is a file that this process may execute.
inline bool IsProgram(const std::string& path) {
    struct stat info = {};
    return stat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode) &&
           access(path.c_str(), X_OK) == 0;
}

/// The path of the targetcli that the program `wrapper` stands in front of, absolute or as
/// `configured` gives it (MOSCSI_TARGETCLI_REAL). Without `configured` it is the first executable
/// `targetcli` behind the wrapper's own place on PATH, or the first at all when the wrapper isn't
/// on PATH. A link to the wrapper isn't taken for it, and two wrappers on one PATH can't call each
/// other in turn.
///
/// Returns: empty when there is none; `error` then says, in one line, what to do.
inline std::string FindTargetcli(const std::string& configured, const std::string& wrapper,
                                 std::string& error) {
    const auto isWrapper = [&wrapper](const std::string& path) {
        std::error_code ignored;
        return std::filesystem::equivalent(path, wrapper, ignored);
    };

    if (!configured.empty()) {
        if (IsProgram(configured) && !isWrapper(configured))
            return configured;
        error = "MOSCSI_TARGETCLI_REAL=" + configured + " is not the real targetcli program";
        return {};
    }

    const char* path = getenv("PATH");
    std::istringstream directories(path != nullptr ? path : "/usr/sbin:/usr/bin:/sbin:/bin");
    std::string result;
    bool passedWrapper = false;
    for (std::string directory; std::getline(directories, directory, ':');) {
        const std::string candidate = (directory.empty() ? "." : directory) + "/targetcli";
        if (!IsProgram(candidate))
            continue;
        if (isWrapper(candidate)) {
            if (!passedWrapper) {
                passedWrapper = true;
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
