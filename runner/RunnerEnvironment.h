#pragma once

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>

#include "runner/DeviceHandler.h"

class LibtcmuApi;

/// What the runner finds around it: the real machine, or a test's.
struct RunnerEnvironment {
    LibtcmuApi* tcmu = nullptr;
    std::function<bool()> familyRegistered;  ///< the kernel's TCM-USER
    std::function<std::unique_ptr<DeviceHandler>(tcmu_device*)> makeHandler;

    std::filesystem::path moduleParameters = "/sys/module/target_core_user/parameters";
    std::filesystem::path backstores = "/sys/kernel/config/target/core";
    std::filesystem::path uioClass = "/sys/class/uio";

    std::chrono::milliseconds familyPause{100};  ///< between two looks for the family
    std::chrono::milliseconds stopLimit{10000};  ///< for the host to give back what it holds
};
