#pragma once

#include "runner/CommandGate.h"
#include "runner/DeviceHandler.h"
#include "tests/support/FakeLibtcmuApi.h"
#include "tests/support/TestHost.h"

/// ", NAME VALUE" of each counter that isn't zero, by name.
inline std::string Counted(MoStatistics::Counters counters) {
    std::sort(counters.begin(), counters.end());
    std::string text;
    for (const auto& [name, value] : counters)
        if (value != 0)
            text += ", " + name + " " + std::to_string(value);
    return text;
}

/// Ring, gate and the plug-in's handler of one LUN, over the model of the kernel. Thread: one.
struct GateRig {
    static constexpr uint64_t kBlock = 512;

    FakeLibtcmuApi api;
    FakeDevice lib;
    tcmu_device device{api, lib.Lib()};
    std::unique_ptr<DeviceHandler> handler;
    std::unique_ptr<CommandGate> gate;
    std::optional<tcmulib_cmd> ended;  ///< as its record was left

    /// Opens the device, anew if need be; without `host` its LUN isn't known.
    void Open(uint64_t blocks, MoScsiBStorOps* host) {
        MoScsiSrvLIOTest::AddLun(device.cfgString, host);
        lib.size = blocks * kBlock;
        handler.reset();
        handler = MakePluginHandler(&device);
        EXPECT_EQ(handler->Open(), 0);
        gate = std::make_unique<CommandGate>(device, *handler);
        device.completionHook = [this](RingCommand& command, int& result) {
            gate->Completing(command, result);
            ended = command;
        };
    }

    void Drain() {
        device.ring.BeginDrain();
        while (RingCommand* command = device.ring.Fetch()) {
            ended.reset();
            gate->Pass(*command);
            // A completed record is somebody else's.
            EXPECT_TRUE(!ended || memcmp(command, &*ended, sizeof *ended) == 0);
        }
        device.ring.EndDrain();
    }
    /// Returns: the answer, which a host that completes at once has given.
    std::optional<KernelRing::Answer> Answer(const Bytes& cdb, const Extents& pieces) {
        const auto ticket = lib.Submit(cdb, pieces);
        Drain();
        return lib.AnswerOf(ticket);
    }

    static Bytes Flat(const uint8_t* memory, const Extents& pieces) {
        Bytes flat;
        for (const auto& [offset, length] : pieces)
            flat.insert(flat.end(), memory + offset, memory + offset + length);
        return flat;
    }
};
