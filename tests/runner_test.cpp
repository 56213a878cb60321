#include <gtest/gtest.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/file.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <thread>

#include "adapters/runner/DbusService.h"
#include "adapters/runner/Runner.h"
#include "adapters/runner/ThreadSignals.h"
#include "adapters/runner/tcmu_runner.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeLibtcmuApi.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/TestHost.h"

// The plug-in's singleton starts this on a thread of its own; here each test runs its own runner.
int tcmu_runner_main(int argc, char** argv) {
    static auto* kept = new std::vector<char*>;  // the runner may keep its arguments
    kept->assign(argv, argv + argc);
    return 0;
}

// That thread is never joined, by contract; nor are those that a stop has to leave.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "report_thread_leaks=0";
}

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// What a stop may have to leave in use lives to the end of the process.
template <typename T>
T& Kept() {
    static auto* kept = new std::vector<T*>;
    kept->push_back(new T);
    return *kept->back();
}

std::string Content(const fs::path& file) {
    std::ifstream stream(file);
    return {std::istreambuf_iterator<char>(stream), {}};
}

void Fill(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text;
}

std::unique_ptr<PrivateBus> g_bus;

class RunnerTest : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        sigset_t interrupt;
        sigemptyset(&interrupt);
        sigaddset(&interrupt, SIGINT);
        pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
        g_bus = std::make_unique<PrivateBus>();
    }
    static void TearDownTestSuite() { g_bus.reset(); }

    void SetUp() override {
        if (!g_bus->Running())
            GTEST_SKIP() << "dbus-daemon is not installed";
        CapturingLogWriter::Installed().Reset(1);
        char name[] = "/tmp/runner_test.XXXXXX";
        root = mkdtemp(name);
        Fill(root / "parameters/block_netlink", "0");
        Fill(root / "parameters/reset_netlink", "0");
        environment.tcmu = &api;
        environment.familyRegistered = [] { return true; };
        environment.makeHandler = MakePluginHandler;
        environment.moduleParameters = root / "parameters";
        environment.backstores = root / "core";
        environment.uioClass = root / "uio";
        environment.stopLimit = std::chrono::hours(1);  // nothing waits for it in vain
        environment.familyPause = std::chrono::milliseconds(1);
        Describe(device, "MoScsiSrvTcmu/" + fs::path(name).filename().string());
    }
    void TearDown() override {
        if (runner.joinable())
            Stop();
        if (!root.empty())
            fs::remove_all(root);
    }

    // Gives the device its place in sysfs and configfs.
    void Describe(FakeDevice& dev, const std::string& cfgString) {
        static int number = 0;
        dev.cfgString = cfgString;
        dev.uioName = "uio" + std::to_string(++number);
        Fill(root / "uio" / dev.uioName / "name",
             "tcm-user/3/lun" + std::to_string(number) + "/" + cfgString + "\n");
        Fill(BlockFile(dev), "0");
    }
    fs::path BlockFile(const FakeDevice& dev) const {
        return root / "core/user_3" / ("lun" + dev.uioName.substr(3)) / "action/block_dev";
    }

    void Start() {
        runner = std::thread([this] {
            const ThreadSignals signals;
            InterruptWait interrupt;
            result = RunRunner(environment, interrupt);
        });
    }
    void StartAndWait() {
        Start();
        ASSERT_TRUE(FakeDevice::Eventually([] { return Logged(1, "ready"); }));
    }
    int Stop() {
        pthread_kill(runner.native_handle(), SIGINT);
        runner.join();
        return result;
    }

    static bool Logged(int level, const std::string& part) {
        return testing::PrintToString(CapturingLogWriter::Installed().Texts(level)).find(part) !=
               std::string::npos;
    }
    static std::string Errors() {
        return testing::PrintToString(CapturingLogWriter::Installed().Texts(-1));
    }

    // What another program sees on the bus below the service's path.
    static std::vector<std::string> Objects() {
        auto connection = sdbus::createSystemBusConnection();
        auto proxy = sdbus::createProxy(*connection, DbusService::kName, DbusService::kPath);
        std::map<sdbus::ObjectPath, std::map<std::string, std::map<std::string, sdbus::Variant>>>
            objects;
        proxy->callMethod("GetManagedObjects")
            .onInterface("org.freedesktop.DBus.ObjectManager")
            .storeResultsTo(objects);
        std::vector<std::string> names;
        for (const auto& [path, interfaces] : objects) {
            EXPECT_TRUE(interfaces.at(DbusService::kName).contains("ConfigDesc"));
            names.push_back(path);
        }
        return names;
    }
    static bool NameTaken() {
        auto connection = sdbus::createSystemBusConnection();
        auto proxy = sdbus::createProxy(*connection, "org.freedesktop.DBus", "/");
        bool taken = false;
        proxy->callMethod("NameHasOwner")
            .onInterface("org.freedesktop.DBus")
            .withArguments(std::string(DbusService::kName))
            .storeResultsTo(taken);
        return taken;
    }

    static Bytes Cdb10(uint8_t opcode, uint8_t lba) {
        return {opcode, 0, 0, 0, 0, lba, 0, 0, 1, 0};
    }

    fs::path root;
    FakeLibtcmuApi& api = Kept<FakeLibtcmuApi>();
    FakeDevice& device = Kept<FakeDevice>();
    RunnerEnvironment environment;
    std::thread runner;
    std::atomic<int> result{-1};
};

TEST_F(RunnerTest, ServesWhatWasThereAndWhatComesAndStopsInOrder) {
    TestHost host(device.cfgString);
    FakeDevice& second = Kept<FakeDevice>();
    Describe(second, device.cfgString + "-2");
    TestHost secondHost(second.cfgString);
    second.cfgString[0] = 'm';  // as targetcli lower-cases it
    second.cfgString.replace(0, 13, "moscsisrvtcmu");
    api.existing = {&device};
    api.onInitialize = [this] {
        EXPECT_TRUE(NameTaken());
        EXPECT_EQ(Content(root / "parameters/block_netlink"), "1");
        EXPECT_EQ(Content(root / "parameters/reset_netlink"), "1");
        EXPECT_ANY_THROW(Objects()) << "offered last";
    };
    api.onClose = [&] {
        for (const FakeDevice* dev : {&device, &second}) {
            EXPECT_EQ(Content(BlockFile(*dev)), "1");
            Fill(BlockFile(*dev), "0");  // as libtcmu leaves it
        }
    };
    StartAndWait();
    EXPECT_EQ(Content(root / "parameters/block_netlink"), "0");
    EXPECT_EQ(api.subTypes, (std::vector<std::string>{"MoScsiSrvTcmu", "moscsisrvtcmu"}));
    EXPECT_EQ(Objects(), (std::vector<std::string>{"/org/kernel/TCMUService1/MoScsiSrvTcmu",
                                                   "/org/kernel/TCMUService1/moscsisrvtcmu"}));
    api.Announce(second);
    ASSERT_TRUE(FakeDevice::Eventually([&] { return api.answered == 1; }));

    for (FakeDevice* dev : {&device, &second}) {
        memset(dev->ring.Data(), 0x5A, 512);
        EXPECT_EQ(dev->WaitForAnswer(dev->Submit(Cdb10(0x2A, 7), {{0, 512}})).status, 0);
        EXPECT_EQ(dev->WaitForAnswer(dev->Submit(Cdb10(0x28, 7), {{4096, 512}})).status, 0);
        EXPECT_EQ(memcmp(dev->ring.Data(), dev->ring.Data() + 4096, 512), 0);
    }
    EXPECT_EQ(secondHost.data[7 * 512], 0x5A);
    // 0xC0 has a CDB of no known length: no other layer may leave it unanswered.
    EXPECT_EQ(device.WaitForAnswer(device.Submit({0xC0, 1, 2, 3, 4, 5}, {})).status, 2);
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.closed);
    EXPECT_EQ(Content(BlockFile(device)), "1");
    EXPECT_EQ(Content(BlockFile(second)), "1");
    EXPECT_FALSE(NameTaken());
    EXPECT_EQ(Errors(), "{}");
}

TEST_F(RunnerTest, EachFailingPhaseIsOneLineAndACleanStop) {
    struct Failure {
        std::function<void()> break_;
        std::string line;
        std::function<void()> mend;
    };
    DbusService other;
    char comm[16] = "";
    pthread_getname_np(pthread_self(), comm, sizeof comm);
    const Failure failures[] = {
        {[&] { ASSERT_TRUE(other.TakeName()); },
         "another TCMU daemon has the D-Bus name org.kernel.TCMUService1: " + std::string(comm) +
             " (process " + std::to_string(getpid()) + ")",
         [&] { other.GiveUpName(); }},
        {[&] { fs::remove(root / "parameters/block_netlink"); }, "block_netlink",
         [&] {
             EXPECT_EQ(Content(root / "parameters/reset_netlink"), "0") << "before it is blocked";
             Fill(root / "parameters/block_netlink", "0");
         }},
        {[&] { api.initializeResult = -ENOENT; }, "libtcmu could not be initialised",
         [&] { api.initializeResult = 0; }},
    };
    for (const Failure& failure : failures) {
        SCOPED_TRACE(failure.line);
        CapturingLogWriter::Installed().Reset(0);
        failure.break_();
        Start();
        runner.join();
        EXPECT_EQ(result, 1);
        failure.mend();
        const auto errors = CapturingLogWriter::Installed().Texts(-1);
        ASSERT_EQ(errors.size(), 1U);
        EXPECT_NE(errors.front().find(failure.line), std::string::npos) << errors.front();
        EXPECT_EQ(Content(root / "parameters/block_netlink"), "0");
        EXPECT_FALSE(NameTaken());
    }
    CapturingLogWriter::Installed().Reset(1);
    StartAndWait();  // nothing of all that is left
}

TEST_F(RunnerTest, InterruptEndsTheWaitForTheKernel) {
    std::atomic<int> looks{0};
    environment.familyRegistered = [&] { return ++looks < 0; };
    Start();
    EXPECT_TRUE(FakeDevice::Eventually([&] { return looks > 3; }));
    EXPECT_TRUE(NameTaken());
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.subTypes.empty()) << "initialised";
    EXPECT_EQ(Errors(), "{}");
}

TEST_F(RunnerTest, StopLeavesOpenWhatTheHostHolds) {
    TestHost host(device.cfgString);
    api.existing = {&device};
    environment.stopLimit = std::chrono::milliseconds(50);
    StartAndWait();
    host.hold = true;
    const uint32_t ticket = device.Submit(Cdb10(0x28, 3), {{0, 512}});
    ASSERT_TRUE(FakeDevice::Eventually([&] { return host.given == 1; }));
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(Logged(-1, device.cfgString + ": the host still holds 1 commands"));
    EXPECT_FALSE(api.closed) << "the real one would wait for ever";
    EXPECT_FALSE(NameTaken());

    host.data[3 * 512] = 0x42;
    host.Release();  // a late completion still finds everything
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    EXPECT_EQ(device.ring.Data()[0], 0x42);
}

TEST_F(RunnerTest, RemovalWaitsForTheHostAndOthersGoOn) {
    TestHost host(device.cfgString);
    FakeDevice& other = Kept<FakeDevice>();
    Describe(other, device.cfgString + "-other");
    TestHost otherHost(other.cfgString);
    FakeDevice& stranger = Kept<FakeDevice>();
    api.existing = {&device, &other};
    StartAndWait();
    host.hold = true;
    host.yields = false;
    const uint32_t ticket = device.Submit(Cdb10(0x28, 3), {{0, 512}});
    ASSERT_TRUE(FakeDevice::Eventually([&] { return host.given == 1; }));
    api.Remove(device);
    ASSERT_TRUE(FakeDevice::Eventually([&] { return host.aborts == 1; }));
    EXPECT_EQ(other.WaitForAnswer(other.Submit(Cdb10(0x28, 3), {{0, 512}})).status, 0);
    EXPECT_EQ(api.answered, 0) << "the context still points into the ring";
    host.Release();
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    ASSERT_TRUE(FakeDevice::Eventually([&] { return api.answered == 1; }));
    EXPECT_TRUE(Logged(0, "close success " + device.cfgString));

    api.Remove(stranger);  // one that isn't served
    EXPECT_TRUE(FakeDevice::Eventually([&] { return api.answered == 2; }));
    Describe(stranger, other.cfgString);
    api.Announce(stranger);  // a second one of that string
    EXPECT_TRUE(FakeDevice::Eventually([&] { return api.answered == 3; }));
    EXPECT_EQ(api.lastAdded, -22);
    api.Announce(device);  // the string of a removed one
    EXPECT_TRUE(FakeDevice::Eventually([&] { return api.answered == 4; }));
    EXPECT_EQ(device.WaitForAnswer(device.Submit(Cdb10(0x28, 3), {{0, 512}})).status, 0);
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, CompletionsOfSeveralThreadsNeverMixUp) {
    TestHost host(device.cfgString, 4);
    api.existing = {&device};
    StartAndWait();
    for (size_t i = 0; i < 256; ++i)
        memset(host.data.data() + i * 512, int(i), 512);
    constexpr int kDepth = 32;
    struct Slot {
        uint32_t ticket = 0;
        uint8_t lba = 0;
    };
    std::array<Slot, kDepth> slots;
    for (int i = 0; i < 3000 + kDepth; ++i) {
        const size_t number = size_t(i) % kDepth;
        Slot& slot = slots[number];
        const size_t place = number * 4096;
        if (i >= kDepth) {
            ASSERT_EQ(device.WaitForAnswer(slot.ticket).status, 0);
            ASSERT_EQ(device.ring.Data()[place + 511], slot.lba);
        }
        if (i >= 3000)
            continue;
        if (i % 5 == 0) {  // answered by the device's own thread
            slot = {device.Submit(Bytes(6)), device.ring.Data()[place + 511]};
        } else {
            slot.lba = uint8_t(i * 7);
            slot.ticket = device.Submit(Cdb10(0x28, slot.lba), {{place, 512}});
        }
    }
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(device.AnsweredAll());
    EXPECT_TRUE(api.closed);
}

// Stops in Handle until it is let through.
struct SlowHandler : DeviceHandler {
    struct Gate {
        std::atomic<bool> inside{false};
        std::atomic<bool> let{false};
        std::atomic<bool> closed{false};
    };
    explicit SlowHandler(Gate& at) : gate(at) {}

    int Open() override { return 0; }
    int Handle(tcmulib_cmd* /*cmd*/) override {
        gate.inside = true;
        EXPECT_TRUE(FakeDevice::Eventually([this] { return gate.let.load(); }));
        gate.inside = false;
        return 0;
    }
    void Close() override {
        EXPECT_FALSE(gate.inside) << "the device's thread has not ended";
        gate.closed = true;
    }
    size_t Pending() override { return 0; }
    MoStatistics::Counters Counters() override { return {}; }

    Gate& gate;
};

TEST_F(RunnerTest, HandlerIsClosedAfterItsThreadHasEnded) {
    SlowHandler::Gate& gate = Kept<SlowHandler::Gate>();
    environment.makeHandler = [&](tcmu_device*) { return std::make_unique<SlowHandler>(gate); };
    environment.stopLimit = std::chrono::milliseconds(20);
    api.existing = {&device};
    StartAndWait();
    device.Submit(Bytes(6));
    ASSERT_TRUE(FakeDevice::Eventually([&] { return gate.inside.load(); }));
    api.Remove(device);
    EXPECT_EQ(Stop(), 0);  // bounded, though the host hasn't returned
    EXPECT_FALSE(gate.closed);
    gate.let = true;
    EXPECT_TRUE(FakeDevice::Eventually([&] { return api.answered == 1; }));
    EXPECT_TRUE(gate.closed);
}

// 300 interrupts for the process: the host, which waits for them, gets every one.
TEST(InterruptWaitTest, TakesOnlyWhatIsSentToItsThread) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    std::atomic<bool> waiting{false};
    std::atomic<bool> done{false};
    std::thread runner([&] {
        InterruptWait wait;
        waiting = true;
        wait.Wait();
        EXPECT_TRUE(wait.Interrupted());
        EXPECT_TRUE(wait.WaitFor(std::chrono::hours(1)));
        done = true;
    });
    ASSERT_TRUE(FakeDevice::Eventually([&] { return waiting.load(); }));
    int taken = 0;
    for (int i = 0; i < 300; ++i) {
        kill(getpid(), SIGINT);
        std::this_thread::yield();  // the runner may look while nobody has taken it yet
        const timespec limit{5, 0};
        taken += sigtimedwait(&interrupt, nullptr, &limit) == SIGINT ? 1 : 0;
    }
    EXPECT_EQ(taken, 300);
    EXPECT_FALSE(done);

    kill(getpid(), SIGINT);  // both pending: only its own is taken
    pthread_kill(runner.native_handle(), SIGINT);
    runner.join();
    const timespec limit{5, 0};
    EXPECT_EQ(sigtimedwait(&interrupt, nullptr, &limit), SIGINT);
}

}  // namespace
