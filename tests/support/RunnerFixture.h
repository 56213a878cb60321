#pragma once

#include <gmock/gmock.h>

#include "framework/MoProcess.h"
#include "framework/ThreadSignals.h"
#include "host/service/BusWait.h"
#include "runner/DbusService.h"
#include "runner/InterruptWait.h"
#include "runner/Runner.h"
#include "runner/RunnerEnvironment.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeConfigfs.h"
#include "tests/support/GateRig.h"
#include "tests/support/TempDirectory.h"

namespace fs = std::filesystem;
using namespace testing;  // matchers

/// Starts a message bus of the test's own, which the process takes for the system bus and which
/// ends with it; at one address, however often, until another is asked for: a runner that couldn't
/// close keeps its name. Returns: its process, 0 without dbus-daemon.
inline pid_t StartBus(bool another = false) {
    static const TempDirectory directory;
    static int number = 0;
    number += another ? 1 : 0;
    const std::string address =
        "unix:path=" + (directory.path / "bus").string() + std::to_string(number);
    const int set = setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    FILE* const output = popen(("exec setpriv --pdeathsig KILL dbus-daemon --session --nofork "
                                "--nopidfile --print-pid=1 2>/dev/null --address=" +
                                address)
                                   .c_str(),
                               "re");
    pid_t pid = 0;
    return set == 0 && fscanf(output, "%d", &pid) == 1 ? pid : 0;
}

/// What a stop may have to leave in use lives to the end of the process.
template <typename T>
T& Kept() {
    static auto& kept = *new std::vector<T*>;
    return *kept.emplace_back(new T);
}

inline std::string Content(const fs::path& file) {
    std::string word;
    std::ifstream(file) >> word;
    return word;
}

inline Bytes Read10(uint8_t lba) {
    return {0x28, 0, 0, 0, 0, lba, 0, 0, 1, 0};
}

/// A runner on a thread of its own, over the model of libtcmu and a bus and directories of the
/// test's own. Objects of a test that a stop may have to leave in use must be Kept.
struct RunnerTest : Test {
    void SetUp() override {
        if (bus == 0 && (bus = StartBus()) == 0)
            GTEST_SKIP() << "dbus-daemon is not installed";
        log.Reset(1);
        FakeConfigfs::Write(block, "0");
        FakeConfigfs::Write(reset, "0");
        environment.tcmu = &api;
        environment.familyRegistered = [] { return true; };
        environment.makeHandler = MakePluginHandler;
        environment.moduleParameters = block.parent_path();
        environment.backstores = directory.path / "core";
        environment.uioClass = directory.path / "uio";
        environment.stopLimit = std::chrono::seconds(20);  // longer than any wait of a test
        environment.familyPause = std::chrono::milliseconds(1);
        Describe(device, "");
        api.existing = {&device};
    }
    void TearDown() override {
        if (runner.joinable())
            Stop();
    }

    // Gives a device its string, and its place in sysfs and configfs.
    FakeDevice& Describe(FakeDevice& dev, const std::string& name) {
        const std::string lun = "lun" + std::to_string(++devices);
        dev.cfgString = "MoScsiSrvTcmu/" + directory.path.filename().string() + name;
        dev.uioName = "uio-" + lun;
        FakeConfigfs::Write(environment.uioClass / dev.uioName / "name",
                            "tcm-user/3/" + lun + "/" + dev.cfgString);
        FakeConfigfs::Write(BlockFile(dev), "0");
        return dev;
    }
    fs::path BlockFile(const FakeDevice& dev) const {
        return environment.backstores / "user_3" / dev.uioName.substr(4) / "action/block_dev";
    }

    void Start() {
        result = -1;
        runner = std::thread([this] {
            InterruptWait interrupt;
            result = RunRunner(environment, interrupt);
        });
    }
    void StartAndWait() {
        Start();
        Await([this] { return PrintToString(log.Texts(1)).find("ready") != std::string::npos; });
    }
    void Interrupt() { pthread_kill(runner.native_handle(), SIGINT); }
    int Stop() {
        Interrupt();
        return Ended();
    }
    // A runner that doesn't end ends the program: all that it uses is the test's.
    int Ended() noexcept {
        Await([this] { return result >= 0; });
        runner.join();
        return result;
    }

    // Announces a device. Returns: what `added` says.
    int Announce(FakeDevice& dev) {
        api.Announce(dev);
        Await([&] { return api.answered == api.asked; });
        return api.lastAdded;
    }
    // Has the device's host hold a READ.
    FakeDevice::Ticket Hold(TestHost& host) {
        const int before = host.given;
        host.hold = true;
        auto ticket = device.Submit(Read10(3), {{0, 512}});
        Await([&] { return host.given > before; });
        return ticket;
    }

    static bool NameTaken() { return !WaitForBusNameGone(std::chrono::seconds(0)); }
    // What another program on the bus misses.
    static std::string Lacking() {
        return WaitForBusObjects(std::chrono::seconds(0), [] { return false; });
    }

    static inline pid_t bus = 0;
    CapturingLogWriter& log = CapturingLogWriter::Installed();
    const ThreadSignals signals;
    TempDirectory directory;
    const fs::path block = directory.path / "parameters/block_netlink";
    const fs::path reset = directory.path / "parameters/reset_netlink";
    FakeLibtcmuApi& api = Kept<FakeLibtcmuApi>();
    FakeDevice& device = Kept<FakeDevice>();
    RunnerEnvironment environment;
    int devices = 0;
    std::thread runner;
    std::atomic<int> result{-1};
};
