#include "tests/support/RunnerFixture.h"

#include <sys/eventfd.h>

#include "framework/MoProcess.h"
#include "host/service/HostLog.h"
#include "libtcmu/Cdb.h"
#include "runner/NetlinkFamily.h"

static std::atomic<bool> g_noEventfd{false};
extern "C" int __real_eventfd(unsigned count, int flags);
extern "C" int __wrap_eventfd(unsigned count, int flags) {
    return g_noEventfd ? -1 : __real_eventfd(count, flags);
}

TEST_F(RunnerTest, ServesWhatWasThereAndWhatComesAndStopsInOrder) {
    TestHost host(device.cfgString);
    FakeDevice& second = Describe(Kept<FakeDevice>(), "-2");
    TestHost secondHost(second.cfgString);
    second.cfgString.replace(0, 13, "moscsisrvtcmu");  // as targetcli lower-cases it
    FakeDevice& late = Describe(Kept<FakeDevice>(), "-late");
    const auto nameWithoutObjects = [] {
        EXPECT_THAT(Lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));
    };
    api.onInitialize = [&] {
        EXPECT_EQ(Content(block) + Content(reset), "11");
        nameWithoutObjects();  // these are offered last
        return 0;
    };
    api.onClose = [&] {
        nameWithoutObjects();
        for (const FakeDevice* dev : {&device, &second, &late}) {
            EXPECT_EQ(Content(BlockFile(*dev)), "1");
            FakeConfigfs::Write(BlockFile(*dev), "0");  // as libtcmu leaves it
        }
    };
    StartAndWait();
    int bytes = 0;
    socklen_t size = sizeof bytes;
    getsockopt(api.MasterFd(), SOL_SOCKET, SO_RCVBUF, &bytes, &size);
    EXPECT_GT(bytes, 400'000);  // even without privilege
    EXPECT_EQ(Content(block), "0");
    EXPECT_THAT(api.subTypes, ElementsAre("MoScsiSrvTcmu", "moscsisrvtcmu"));
    EXPECT_EQ(Lacking(), "");
    std::string objects;
    MoProcess::system(
        "dbus-send --system --print-reply --dest=org.kernel.TCMUService1 "
        "/org/kernel/TCMUService1 org.freedesktop.DBus.ObjectManager.GetManagedObjects",
        &objects, nullptr, 0, false);
    for (const char* part : {"/MoScsiSrvTcmu\"", "/moscsisrvtcmu\"", "ConfigDesc"})
        EXPECT_THAT(objects, HasSubstr(part));
    EXPECT_EQ(Announce(second), 0);

    for (FakeDevice* dev : {&device, &second}) {
        memset(dev->ring.Data(), 0x5A, 512);
        EXPECT_EQ(dev->StatusOf({0x2A, 0, 0, 0, 0, 7, 0, 0, 1, 0}, {{0, 512}}), 0);
        EXPECT_EQ(dev->StatusOf(Read10(7), {{4096, 512}}), 0);
        EXPECT_EQ(memcmp(dev->ring.Data(), dev->ring.Data() + 4096, 512), 0);
    }
    EXPECT_EQ(secondHost.data[7 * 512], 0x5A);
    // 0xC0 has a CDB of no known length: no other layer may leave it unanswered.
    EXPECT_EQ(device.StatusOf({0xC0, 1, 2, 3, 4, 5}), 2);

    const auto ticket = Hold(host);
    Interrupt();
    Await([&] { return Content(BlockFile(device)) == "1"; });
    EXPECT_EQ(Announce(late), 0);
    host.Release();
    EXPECT_EQ(Stop(), 0);
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    EXPECT_TRUE(api.closed);
    for (const FakeDevice* dev : {&device, &second, &late})
        EXPECT_EQ(Content(BlockFile(*dev)), "1");
    EXPECT_FALSE(NameTaken());
    EXPECT_THAT(log.Texts(-1), IsEmpty());
}

TEST_F(RunnerTest, ABusThatWasRestartedHasItsObjectsAgainAndOneThatIsAwayHoldsNoStopBack) {
    const auto busDies = [this] {
        log.Reset(1);
        kill(bus, SIGKILL);
        Await([&] { return log.Texts(-1).size() == 1; });
        EXPECT_THAT(log.Texts(-1), ElementsAre(HasSubstr("connection lost")));
    };
    StartAndWait();
    busDies();
    bus = StartBus();
    Await([] { return Lacking().empty(); });
    busDies();
    EXPECT_EQ(Stop(), 0);
    bus = StartBus();
    EXPECT_FALSE(NameTaken());
    StartAndWait();
}

TEST_F(RunnerTest, EachFailingPhaseIsOneLineAndACleanStop) {
    const auto fails = [&](const std::string& line) {
        log.Reset(0);
        Start();
        EXPECT_EQ(Ended(), 1);
        EXPECT_THAT(log.Texts(-1), ElementsAre(HasSubstr(line)));
    };
    {
        DbusService other;
        ASSERT_TRUE(other.TakeName());
        fails("another TCMU daemon has the D-Bus name org.kernel.TCMUService1: " +
              std::string(program_invocation_short_name).substr(0, 15) + " (process " +
              std::to_string(getpid()) + ")");
        ASSERT_TRUE(other.ExportHandlers({"MoScsiSrvTcmu"}));
        int looks = 0;
        EXPECT_THAT(WaitForBusObjects(std::chrono::seconds(5), [&] { return ++looks == 2; }),
                    HasSubstr("/moscsisrvtcmu is not there"));
        EXPECT_EQ(looks, 2);
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
    Await([&] { return looks > 3; });
    EXPECT_TRUE(NameTaken());
    EXPECT_EQ(Stop(), 0);

    environment.familyRegistered = [] { return true; };
    pthread_kill(pthread_self(), SIGINT);  // told before it begins
    InterruptWait interrupt;
    EXPECT_EQ(RunRunner(environment, interrupt), 0);
    EXPECT_THAT(api.subTypes, IsEmpty()) << "initialised";
    EXPECT_THAT(log.Texts(-1), IsEmpty());
    EXPECT_TRUE(NetlinkFamilyRegistered("nlctrl"));
    EXPECT_FALSE(NetlinkFamilyRegistered("nlctr"));
}

TEST_F(RunnerTest, StopLeavesOpenWhatTheHostHolds) {
    TestHost host(device.cfgString);
    environment.stopLimit = std::chrono::milliseconds(50);
    StartAndWait();
    const auto ticket = Hold(host);
    EXPECT_EQ(Stop(), 0);
    EXPECT_THAT(log.Texts(-1),
                Contains(HasSubstr(device.cfgString + ": the host still holds 1 commands")));
    EXPECT_FALSE(api.closed) << "the real one would wait for ever";
    EXPECT_TRUE(NameTaken()) << "another daemon would reset the rings";
    EXPECT_THAT(Lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));

    host.data[3 * 512] = 0x42;
    host.Release();  // a late completion still finds everything
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    EXPECT_EQ(device.ring.Data()[0], 0x42);
    bus = StartBus(true);
}

TEST_F(RunnerTest, StopWaitsForAThreadThatIsOnlySlow) {
    TestHost host(device.cfgString, false);
    environment.stopLimit = std::chrono::milliseconds(1);
    host.inside = [&] {
        Await([&] { return Content(BlockFile(device)) == "1"; });
        for (int i = 0; i < 20; ++i)  // it takes longer than the limit, and a moment more
            EXPECT_TRUE(NameTaken());
    };
    StartAndWait();
    device.Submit(Read10(3), {{0, 512}});
    Await([&] { return host.given == 1; });
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, DeviceThatCannotBeServedIsRefusedAndClosed) {
    static std::atomic<int> closes{0};
    struct Handler : DeviceHandler {
        int Open() override { return 0; }
        int Handle(tcmulib_cmd* /*cmd*/) override { return 0; }
        void Close() override { ++closes; }
        MoStatistics::Counters Counters() override { return {}; }
    };
    bool made = false;
    environment.makeHandler = [&](tcmu_device* /*dev*/) {
        return made ? std::make_unique<Handler>() : throw std::runtime_error("no handler");
    };
    api.existing.clear();
    StartAndWait();
    EXPECT_EQ(Announce(device), -EAGAIN);

    made = true;
    g_noEventfd = true;  // which each thread has
    EXPECT_EQ(Announce(device), -EAGAIN);
    g_noEventfd = false;
    EXPECT_EQ(closes, 1);
    EXPECT_EQ(Announce(device), 0);
    EXPECT_THAT(log.Texts(-1), SizeIs(2));
}

// What threw may hold a lock, and the command may be the host's: neither is touched again.
TEST_F(RunnerTest, AnExceptionOutOfAHandlerCostsItsLun) {
    struct Handler : DeviceHandler {
        int Open() override { return 0; }
        int Handle(tcmulib_cmd* cmd) override {
            ++handled;
            return cmd->cdb[0] == 0xC0 ? throw 42 : 0;
        }
        void Close() override {}
        MoStatistics::Counters Counters() override { return {}; }
        std::atomic<int> handled{0};
    };
    FakeDevice& other = Describe(Kept<FakeDevice>(), "-other");
    TestHost host(other.cfgString);
    api.existing = {&device, &other};
    Handler* handler = nullptr;
    environment.makeHandler = [&](tcmu_device* dev) -> std::unique_ptr<DeviceHandler> {
        if (dev->cfgString == other.cfgString)
            return MakePluginHandler(dev);
        auto made = std::make_unique<Handler>();
        handler = made.get();
        return made;
    };
    environment.stopLimit = std::chrono::milliseconds(50);
    StartAndWait();
    EXPECT_EQ(device.StatusOf(Bytes(6)), 0);
    const auto thrown = device.Submit(Bytes{0xC0, 0, 0, 0, 0, 0});
    for (int i = 0; i < 2; ++i) {
        const auto answer = device.WaitForAnswer(device.Submit(Bytes(6)));
        EXPECT_EQ(answer.status, 2);
        EXPECT_EQ(answer.sense[2] << 16 | LoadBe16(&answer.sense[12]), 0x20403);
    }
    EXPECT_FALSE(device.AnswerOf(thrown).has_value());
    EXPECT_EQ(handler->handled, 2);
    EXPECT_EQ(other.StatusOf(Read10(3), {{0, 512}}), 0);
    EXPECT_THAT(log.Texts(-1), ElementsAre(HasSubstr(device.cfgString + ": its thread failed")));
    EXPECT_EQ(Stop(), 0);
    bus = StartBus(true);
}

TEST_F(RunnerTest, ErrorsThatAnInitiatorCausesAreThoseThatTheHostLimits) {
    TestHost host(device.cfgString);
    StartAndWait();
    MoScsiSrvLIOTest::AddLun(device.cfgString, nullptr);
    log.Reset(-1, false);
    const std::tuple<const char*, Bytes, bool> causes[] = {
        {"tur err", Bytes(6), false},
        {"inquiry err", {0x12, 0, 0, 0, 96, 0}, false},
        {"illegal cmd", {0x25, 0, 0, 0, 0, 0, 0, 0, 1, 0}, true},
        {"ioerr: command not handled", {0x9E, 0x12}, true},
        {"ioerr off", Read10(3), true},
    };
    host.fails = true;
    for (const auto& [line, cdb, known] : causes) {
        if (known)
            MoScsiSrvLIOTest::AddLun(device.cfgString, &host);
        EXPECT_EQ(device.StatusOf(cdb, {{0, 512}}), 2) << line;
        EXPECT_THAT(log.Texts(-1), Contains(HasSubstr(line)));
    }
    const LimitedFunctions limited = InitiatorCaused();
    for (const std::string& function : log.Functions())
        EXPECT_TRUE(std::any_of(limited.begin(), limited.end(), [&](const char* part) {
            return function.find(part) != std::string::npos;
        })) << function;
}

TEST_F(RunnerTest, RemovalWaitsForTheHostAndOthersGoOn) {
    TestHost host(device.cfgString);
    FakeDevice& other = Describe(Kept<FakeDevice>(), "-other");
    TestHost otherHost(other.cfgString);
    FakeDevice& stranger = Kept<FakeDevice>();
    api.existing = {&device, &other};
    StartAndWait();
    const auto ticket = Hold(host);
    api.Remove(device);
    Await([&] { return host.aborts == 1; });
    EXPECT_EQ(other.StatusOf(Read10(3), {{0, 512}}), 0);
    other.ring.HangUp();
    EXPECT_EQ(api.answered, 0) << "the context still points into the ring";
    host.Release();
    EXPECT_EQ(device.WaitForAnswer(ticket).status, 0);
    Await([&] { return api.answered == 1; });
    EXPECT_THAT(log.Texts(0), Contains(HasSubstr("close success " + device.cfgString)));

    api.Remove(stranger);                                    // one that isn't served
    EXPECT_EQ(Announce(Describe(stranger, "-other")), -22);  // a second one of that string
    EXPECT_EQ(Announce(device), 0);                          // the string of a removed one
    EXPECT_EQ(device.StatusOf(Read10(3), {{0, 512}}), 0);
    api.Remove(device);
    EXPECT_LT(other.looks, 10) << "a descriptor with an error is polled no more";
    EXPECT_EQ(Stop(), 0);  // before the hosts go
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, CompletionsOfSeveralThreadsNeverMixUp) {
    TestHost host(device.cfgString);
    StartAndWait();
    for (size_t i = 0; i < 256; ++i)
        memset(host.data.data() + i * 512, int(i), 512);
    std::pair<FakeDevice::Ticket, uint8_t> slots[32];
    for (size_t i = 0; i < 3000; ++i) {
        const size_t place = i % std::size(slots) * 4096;
        auto& [ticket, lba] = slots[i % std::size(slots)];
        if (ticket != nullptr) {
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
    Await([&] { return device.AnsweredAll(); });
    const auto all = MoStatistics::Read();
    EXPECT_THAT(Counted(std::map(all.begin(), all.end())["device " + device.cfgString]),
                MatchesRegex(", I/Os done 2400, gate: passed 2400, opcode 0x00 600"
                             ", opcode 0x28 2400, opens 1, ring: completed 3000"
                             ", ring: doorbells [0-9]+, ring: fetched 3000"
                             ", ring: other entries [1-9][0-9]*"));
    EXPECT_EQ(Stop(), 0);
    EXPECT_TRUE(api.closed);
}

TEST_F(RunnerTest, HandlerIsClosedAfterItsThreadHasEndedAndEachRemovalAnswered) {
    TestHost host(device.cfgString);
    FakeDevice& other = Describe(Kept<FakeDevice>(), "-other");
    api.existing = {&device, &other};
    std::atomic<bool> let{false};
    host.inside = [&] { Await([&] { return let.load(); }); };
    environment.stopLimit = std::chrono::milliseconds(20);
    StartAndWait();
    device.Submit(Read10(3), {{0, 512}});
    Await([&] { return host.given == 1; });
    std::atomic_ref(other.ring.Mailbox().head) = 1 << 30;
    for (int looks = other.looks; looks + 2 > other.looks;) {
        other.ring.RaiseEvent();
        std::this_thread::yield();
    }
    api.Remove(device);
    api.Remove(other);
    EXPECT_EQ(Stop(), 0);  // bounded, though the host hasn't returned
    const auto closed = Contains(HasSubstr("close success " + device.cfgString));
    EXPECT_THAT(log.Texts(0), Not(closed));
    let = true;
    Await([&] { return api.answered == 2; });  // the kernel waits for both, told to end or not
    EXPECT_THAT(log.Texts(0), closed);
    EXPECT_THAT(log.Texts(-1), Contains(HasSubstr("can't be served any more")).Times(1));
    bus = StartBus(true);
}

// 300 interrupts for the process: the host, which waits for them, gets every one.
TEST(InterruptWaitTest, TakesOnlyWhatIsSentToItsThread) {
    const ThreadSignals blocked;
    sigset_t interrupt{};
    sigaddset(&interrupt, SIGINT);
    const auto taken = [&] {
        const timespec limit{5, 0};
        return sigtimedwait(&interrupt, nullptr, &limit) == SIGINT;
    };
    std::atomic<int> steps{0};
    std::thread waiter([&] {
        InterruptWait wait;
        ++steps;
        wait.Wait();
        EXPECT_TRUE(wait.Interrupted() && wait.WaitFor(std::chrono::hours(1)));
        ++steps;
    });
    Await([&] { return steps == 1; });
    for (int i = 0; i < 300; ++i) {
        kill(getpid(), SIGINT);
        std::this_thread::yield();  // the waiter may look while nobody has taken it yet
        EXPECT_TRUE(taken()) << i;
    }
    EXPECT_EQ(steps, 1);
    kill(getpid(), SIGINT);  // both pending: only its own is taken
    pthread_kill(waiter.native_handle(), SIGINT);
    Await([&] { return steps == 2; });
    waiter.join();
    EXPECT_TRUE(taken());
}
