#include "host/service/EarlierCommands.h"

#include <cstdlib>
#include <string>
#include <thread>

pid_t EarlierCommand(const std::filesystem::path& wrapper) {
    std::error_code ignored;
    for (const auto& entry : std::filesystem::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") == std::string::npos &&
            std::filesystem::equivalent(entry.path() / "exe", wrapper, ignored))
            return static_cast<pid_t>(std::strtol(name.c_str(), nullptr, 10));
    }
    return 0;
}

pid_t WaitForEarlierCommands(const std::filesystem::path& wrapper, std::chrono::seconds limit,
                             const std::function<bool()>& stopAsked) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        const pid_t process = EarlierCommand(wrapper);
        if (process == 0 || stopAsked() || std::chrono::steady_clock::now() >= deadline)
            return process;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
}
