#include "tools/targetcli/Settings.h"

#include <charconv>

#include "framework/EnvironmentVariable.h"

namespace {

constexpr int kMaxSeconds = 86400;

bool ReadSeconds(const char* name, const char* fallback, std::chrono::seconds& result,
                 std::string& error) {
    const std::string text = EnvironmentVariable(name, fallback);
    int value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (failure != std::errc() || *end != '\0' || value < 1 || value > kMaxSeconds) {
        error = std::string(name) + "=" + text + " is not a number of seconds from 1 to " +
                std::to_string(kMaxSeconds);
        return false;
    }
    result = std::chrono::seconds(value);
    return true;
}

bool ReadSwitch(const char* name, const char* fallback, bool& result, std::string& error) {
    const std::string text = EnvironmentVariable(name, fallback);
    result = text == "1";
    if (!result && text != "0")
        error = std::string(name) + "=" + text + " is neither 0 nor 1";
    return error.empty();
}

}  // namespace

bool ReadSettings(Settings& settings, std::string& error) {
    settings.stateDir =
        std::filesystem::path(EnvironmentVariable("MOSCSI_RUN_DIR", "/run/moscsi")) / "targetcli";
    settings.configfsRoot =
        EnvironmentVariable("MOSCSI_CONFIGFS_ROOT", "/sys/kernel/config/target");
    settings.real = EnvironmentVariable("MOSCSI_TARGETCLI_REAL", "");
    settings.version = EnvironmentVariable("MOSCSI_TARGETCLI_VERSION", "");
    return ReadSwitch("MOSCSI_TARGETCLI_FAST_ROAD", "1", settings.fastRoad, error) &&
           ReadSwitch("MOSCSI_TARGETCLI_CLOSED", "0", settings.closedTargets, error) &&
           ReadSeconds("MOSCSI_TARGETCLI_TIMEOUT", "120", settings.timeLimit, error) &&
           ReadSeconds("MOSCSI_TARGETCLI_LOCK_WAIT", "20", settings.lockWait, error);
}
