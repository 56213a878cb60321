#pragma once

#include <cstdlib>
#include <string>

/// Returns: the value of the environment variable `name`, or `fallback` when it is unset or empty.
/// Header only, for programs that link nothing of the framework.
/// Thread: any, while none changes the environment.
inline std::string EnvironmentVariable(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr && *value != '\0' ? value : fallback;
}
