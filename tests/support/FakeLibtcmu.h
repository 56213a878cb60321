#pragma once

#include <functional>
#include <string>

#include "adapters/libtcmu/libtcmu.h"

/// The TCMU library's device as tests script it; FakeLibtcmu.cpp stands in for adapters/libtcmu,
/// and notes emulations, completions ("done RESULT/SENSE") and doorbells in the journal.
struct tcmu_device {
    std::string cfgString = "MoScsiSrvTcmu/fake";
    int hwBlockSize = 512;
    int64_t size = int64_t{1} << 20;

    // ---- What the plug-in told it
    uint32_t blockSize = 0;
    uint64_t numLbas = 0;
    void* priv = nullptr;

    /// Called for each completion; the command is the library's again.
    std::function<void(tcmulib_cmd*)> onComplete = [](tcmulib_cmd*) {};
};

/// What every emulation answers: its data is all 'e', or when this isn't 0 a sense of 7/0x1234.
inline int g_emulationStatus = 0;

/// Key, additional code and qualifier in one number, 0x052400 for example; 0 without a sense.
inline uint32_t SenseOf(const tcmulib_cmd& cmd) {
    const uint8_t* const sense = cmd.sense_buf;
    return static_cast<uint32_t>(sense[2] << 16 | sense[12] << 8 | sense[13]);
}
