#include "tests/support/RunnerFixture.h"
#include "tests/support/TestHost.h"

TEST_F(RunnerTest, ServesWhatWasThereAndWhatComesAndStopsInOrder) {
    TestHost host(device.cfgString);
    FakeDevice& second = Kept<FakeDevice>();
    Describe(second, device.cfgString + "-2");
    TestHost secondHost(second.cfgString);
    second.cfgString.replace(0, 13, "moscsisrvtcmu");  // as targetcli lower-cases it
    api.onInitialize = [this] {
        EXPECT_TRUE(NameTaken());
        EXPECT_EQ(Content(block) + Content(reset), "11");
        EXPECT_EQ(Objects(), "") << "offered last";
        return 0;
    };
    api.onClose = [&] {
        for (const FakeDevice* dev : {&device, &second}) {
            EXPECT_EQ(Content(BlockFile(*dev)), "1");
            FakeConfigfs::Write(BlockFile(*dev), "0");  // as libtcmu leaves it
        }
    };
    StartAndWait();
    EXPECT_EQ(Content(block), "0");
    EXPECT_THAT(api.subTypes, ElementsAre("MoScsiSrvTcmu", "moscsisrvtcmu"));
    for (const char* part : {"/MoScsiSrvTcmu\"", "/moscsisrvtcmu\"", "ConfigDesc"})
        EXPECT_THAT(Objects(), HasSubstr(part));
    api.Announce(second);
    EXPECT_TRUE(Eventually([&] { return api.answered == 1; }));

    for (FakeDevice* dev : {&device, &second}) {
        memset(dev->ring.Data(), 0x5A, 512);
        EXPECT_EQ(dev->StatusOf({0x2A, 0, 0, 0, 0, 7, 0, 0, 1, 0}, {{0, 512}}), 0);
        EXPECT_EQ(dev->StatusOf(Read10(7), {{4096, 512}}), 0);
        EXPECT_EQ(memcmp(dev->ring.Data(), dev->ring.Data() + 4096, 512), 0);
    }
    EXPECT_EQ(secondHost.data[7 * 512], 0x5A);
    // 0xC0 has a CDB of no known length: no other layer may leave it unanswered.
    EXPECT_EQ(device.StatusOf({0xC0, 1, 2, 3, 4, 5}), 2);
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.closed);
    EXPECT_EQ(Content(BlockFile(device)) + Content(BlockFile(second)), "11");
    EXPECT_FALSE(NameTaken());
    EXPECT_THAT(log.Texts(-1), IsEmpty());
}

TEST_F(RunnerTest, HostWaitsForBothObjectsAtFirstAndTheNameGoneAtLast) {
    const auto lacking = [] {
        return WaitForBusObjects(std::chrono::seconds(0), [] { return false; });
    };
    DbusService service;
    ASSERT_TRUE(service.TakeName());
    EXPECT_TRUE(NameTaken());
    EXPECT_THAT(lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu"}));
    EXPECT_THAT(lacking(), HasSubstr("/moscsisrvtcmu is not there"));
    service.WithdrawHandlers();
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"}));
    EXPECT_EQ(lacking(), "");
    service.GiveUpName();
    EXPECT_FALSE(NameTaken());
    int looks = 0;
    EXPECT_NE(WaitForBusObjects(std::chrono::hours(1), [&] { return ++looks == 2; }), "");
}

TEST_F(RunnerTest, EachFailingPhaseIsOneLineAndACleanStop) {
    const auto fails = [&](const std::string& line) {
        log.Reset(0);
        Start();
        runner.join();
        EXPECT_EQ(result, 1);
        EXPECT_THAT(log.Texts(-1), ElementsAre(HasSubstr(line)));
    };
    {
        DbusService other;
        ASSERT_TRUE(other.TakeName());
        char comm[16] = "";
        pthread_getname_np(pthread_self(), comm, sizeof comm);
        fails("another TCMU daemon has the D-Bus name org.kernel.TCMUService1: " +
              std::string(comm) + " (process " + std::to_string(getpid()) + ")");
        other.GiveUpName();
    }
    const std::string bus = getenv("DBUS_SYSTEM_BUS_ADDRESS");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    fails("no system D-Bus");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.c_str(), 1);
    fs::remove(block);
    fails("block_netlink");
    EXPECT_EQ(Content(reset), "0") << "before it is blocked";
    FakeConfigfs::Write(block, "0");
    api.onInitialize = [] { return -ENOENT; };
    fails("libtcmu could not be initialised");
    EXPECT_EQ(Content(block), "0");
    api.onInitialize = [] { return 0; };
    log.Reset(1);
    StartAndWait();  // nothing of all that is left
}

TEST_F(RunnerTest, InterruptEndsTheWaitForTheKernel) {
    std::atomic<int> looks{0};
    environment.familyRegistered = [&] { return ++looks < 0; };
    Start();
    EXPECT_TRUE(Eventually([&] { return looks > 3; }));
    EXPECT_TRUE(NameTaken());
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(api.subTypes, IsEmpty()) << "initialised";
    EXPECT_THAT(log.Texts(-1), IsEmpty());
}

TEST_F(RunnerTest, StopLeavesOpenWhatTheHostHolds) {
    TestHost host(device.cfgString);
    environment.stopLimit = std::chrono::milliseconds(50);
    StartAndWait();
    host.hold = true;
    const auto ticket = device.Submit(Read10(3), {{0, 512}});
    EXPECT_TRUE(Eventually([&] { return host.given == 1; }));
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(log.Texts(-1),
                Contains(HasSubstr(device.cfgString + ": the host still holds 1 commands")));
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
    const auto answered = [&](int count) {
        EXPECT_TRUE(Eventually([&] { return api.answered == count; }));
    };
    host.hold = true;
    const auto ticket = device.Submit(Read10(3), {{0, 512}});
    EXPECT_TRUE(Eventually([&] { return host.given == 1; }));
    api.Remove(device);
    EXPECT_TRUE(Eventually([&] { return host.aborts == 1; }));
    EXPECT_EQ(other.StatusOf(Read10(3), {{0, 512}}), 0);
    EXPECT_EQ(api.answered, 0) << "the context still points into the ring";
    host.Release();
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    answered(1);
    EXPECT_THAT(log.Texts(0), Contains(HasSubstr("close success " + device.cfgString)));

    api.Remove(stranger);  // one that isn't served
    answered(2);
    Describe(stranger, other.cfgString);
    api.Announce(stranger);  // a second one of that string
    answered(3);
    EXPECT_EQ(api.lastAdded, -22);
    api.Announce(device);  // the string of a removed one
    answered(4);
    EXPECT_EQ(device.StatusOf(Read10(3), {{0, 512}}), 0);
    EXPECT_EQ(Stop(), 0);  // before the hosts go
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, CompletionsOfSeveralThreadsNeverMixUp) {
    TestHost host(device.cfgString);
    StartAndWait();
    for (size_t i = 0; i < 256; ++i)
        memset(host.data.data() + i * 512, int(i), 512);
    constexpr size_t kDepth = 32;
    std::pair<FakeDevice::Ticket, uint8_t> slots[kDepth];
    for (size_t i = 0; i < 3000 + kDepth; ++i) {
        const size_t place = i % kDepth * 4096;
        auto& [ticket, lba] = slots[i % kDepth];
        if (i >= kDepth) {
            ASSERT_EQ(device.WaitForAnswer(ticket).status, 0);
            ASSERT_EQ(device.ring.Data()[place + 511], lba);
        }
        if (i % 5 == 0) {  // answered by the device's own thread
            ticket = device.Submit(Bytes(6));
        } else {
            lba = uint8_t(i * 7);
            ticket = device.Submit(Read10(lba), {{place, 512}});
        }
    }
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(device.AnsweredAll());
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, HandlerIsClosedAfterItsThreadHasEnded) {
    TestHost host(device.cfgString);
    std::atomic<bool> let{false};
    host.inside = [&] { EXPECT_TRUE(Eventually([&] { return let.load(); })); };
    environment.stopLimit = std::chrono::milliseconds(20);
    StartAndWait();
    device.Submit(Read10(3), {{0, 512}});
    EXPECT_TRUE(Eventually([&] { return host.given == 1; }));
    api.Remove(device);
    EXPECT_EQ(Stop(), 0);  // bounded, though the host hasn't returned
    const auto closed = Contains(HasSubstr("close success " + device.cfgString));
    EXPECT_THAT(log.Texts(0), Not(closed));
    let = true;
    EXPECT_TRUE(Eventually([&] { return api.answered == 1; }));
    EXPECT_THAT(log.Texts(0), closed);
}

// 300 interrupts for the process: the host, which waits for them, gets every one.
TEST(InterruptWaitTest, TakesOnlyWhatIsSentToItsThread) {
    sigset_t interrupt;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, nullptr);
    const auto taken = [&] {
        const timespec limit{5, 0};
        return sigtimedwait(&interrupt, nullptr, &limit) == SIGINT;
    };
    std::atomic<bool> waiting{false};
    std::atomic<bool> done{false};
    std::thread waiter([&] {
        InterruptWait wait;
        waiting = true;
        wait.Wait();
        EXPECT_TRUE(wait.Interrupted());
        EXPECT_TRUE(wait.WaitFor(std::chrono::hours(1)));
        done = true;
    });
    ASSERT_TRUE(Eventually([&] { return waiting.load(); }));
    for (int i = 0; i < 300; ++i) {
        kill(getpid(), SIGINT);
        std::this_thread::yield();  // the waiter may look while nobody has taken it yet
        EXPECT_TRUE(taken()) << i;
    }
    EXPECT_FALSE(done);
    kill(getpid(), SIGINT);  // both pending: only its own is taken
    pthread_kill(waiter.native_handle(), SIGINT);
    waiter.join();
    EXPECT_TRUE(taken());
}
