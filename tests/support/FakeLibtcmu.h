#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "adapters/libtcmu/libtcmu.h"
#include "util/Mutex.h"

/// The TCMU library's device as tests script it; FakeLibtcmu.cpp stands in for adapters/libtcmu.
struct tcmu_device {
    // ---- What the library answers; set before the device is opened ---------------------------
    std::string cfgString = "MoScsiSrvTcmu/fake";
    int hwBlockSize = 512;
    int64_t size = int64_t{1} << 20;
    int emulationStatus = 0;  ///< with a sense of 7/0x1234 when it isn't 0
    uint8_t fill = 0xE5;      ///< what an emulation fills the data with

    // ---- What the plug-in told it ------------------------------------------------------------
    uint32_t blockSize = 0;
    uint64_t numLbas = 0;
    void* priv = nullptr;

    struct Completion {
        tcmulib_cmd* cmd;
        int result;
        uint32_t sense;  ///< see FakeSense
    };
    /// Called for each completion; the command is the library's again. The default keeps it in
    /// `completions`.
    std::function<void(const Completion&)> onComplete = [this](const Completion& completion) {
        MutexGuard guard(mutex);
        completions.push_back(completion);
    };
    Mutex mutex;
    std::vector<Completion> completions MO_GUARDED_BY(mutex);
    size_t doorbells MO_GUARDED_BY(mutex) = 0;  ///< calls of tcmulib_processing_complete
};

/// The device that the emulations without a device argument take their script from, and one line
/// for each emulation that ran ("read_capacity_10 2048 512").
struct FakeEmulation {
    tcmu_device* device = nullptr;
    std::vector<std::string> calls;
};
FakeEmulation& TheFakeEmulation();

/// Key, additional code and qualifier in one number, 0x052400 for example; 0 without a sense.
uint32_t FakeSense(const uint8_t* sense);
