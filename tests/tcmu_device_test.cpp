// The life of a TCMU device's handler: open, its failures, close.

#include <list>

#include "tests/support/TcmuDevFixture.h"

using TcmuDevLifeTest = MoScsiSrvTcmuDevTest;

TEST_F(TcmuDevLifeTest, OpenLearnsTheGeometryAndRegistersOrLeavesTheObjectClosed) {
    tcmu_device good;
    good.hwBlockSize = 4096;
    good.size = 10000;
    MoScsiSrvTcmuDev first(&good);
    journal.Reset(1);
    ASSERT_EQ(first.TcmuDevOpen(), 0);
    EXPECT_EQ(good.blockSize, 4096U);
    EXPECT_EQ(good.numLbas, 2U) << "the remainder is dropped";
    EXPECT_EQ(first.TcmuDevCfgString(), lib.cfgString);
    EXPECT_EQ(journal.Events(),
              (Strings({"+map", "-map",
                        "[0] open success " + lib.cfgString + " " + PrintToString(&first)})));
    const std::tuple<int, int64_t, std::string> rows[] = {
        {-22, 4096, "Could not get device block size\n"},
        {0, 4096, "Could not get device block size\n"},
        {512, -22, "Could not get device size\n"},
        {512, 4096, "RegisterTcmuDev error"}};  // after what the registry says
    for (const auto& [block, size, message] : rows) {
        SCOPED_TRACE(message);
        lib.hwBlockSize = block;
        lib.size = size;
        auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
        const std::string mine = PrintToString(dev.get());
        const Strings refused{"+map",
                              "[-1] tcmudev " + lib.cfgString + " is already registered " +
                                  PrintToString(&first) + " " + mine,
                              "-map"};
        journal.Reset(1);
        EXPECT_EQ(dev->TcmuDevOpen(), -22);
        EXPECT_EQ(dev->TcmuDevCfgString(), "");
        EXPECT_EQ(lib.priv, dev.get()) << "left on the library's device";

        EXPECT_EQ(dev->TcmuDevOpen(), -22);
        dev->TcmuDevClose();
        TestCommand command({0x00});
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -1);
        EXPECT_EQ(Counters(*dev, true), "opens:2 openErrors:1 closeErrors:1 ");
        dev.reset();  // is not closed again
        EXPECT_EQ(
            journal.Events(),
            (message.starts_with("Reg") ? refused : Strings()) +
                Strings({"[-1] " + message, "[-1] open error " + lib.cfgString,
                         "[-1] device not initialized", "[-1] tcmu dev close error, null m_dev",
                         "[-1] ioerr: dev not initialized " + mine}));
    }
    EXPECT_THAT(journal.Functions()[0], "bool MoScsiSrvLIO::RegisterTcmuDev(MoScsiSrvTcmuDev*)");
    EXPECT_EQ(Registry().at(lib.cfgString).second, &first);
}

TEST_F(TcmuDevLifeTest, DeviceWithoutANameKeepsItsDeviceAndIsClosedInTheEnd) {
    lib.cfgString.clear();
    auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
    journal.Reset(1);
    EXPECT_EQ(dev->TcmuDevOpen(), -22);
    EXPECT_EQ(Counters(*dev), "opens:1 ");
    EXPECT_EQ(lib.priv, nullptr);
    const std::string closed = "[0] close success  " + PrintToString(dev.get());
    dev.reset();
    EXPECT_THAT(journal.Events(), ElementsAre("[-1] no configuration found in cfgstring", "+map",
                                              "-map", "[1] UnRegisterTcmuDev error ", closed));
}

TEST_F(TcmuDevLifeTest, CloseAbortsWhatIsPendingAndPollsUntilTheHostHasGivenItBack) {
    auto dev = Open();
    TestCommand commands[] = {TestCommand({0x28, 0, 0, 0, 0, 0, 0, 0, 1}),
                              TestCommand({0x2A, 0, 0, 0, 0, 0, 0, 0, 1})};
    for (TestCommand& command : commands)
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -2);
    Strings expected{"+dev"};  // the host is asked under the lock, in any order
    std::vector<MoScsiSrvIO*> aborted;
    host.onAbort = [&](MoScsiSrvIO* ioctx) {
        const size_t number = ioctx == host.held[0] ? 0 : 1;
        expected.push_back("[1] aborting cmd " + PrintToString(ioctx) + " " +
                           PrintToString(&commands[number]));
        expected.emplace_back("Abort");
        aborted.push_back(ioctx);
    };
    size_t polls = 0;
    g_os.onSleep = [&] {  // the host gives back nothing at the first poll, then one each
        EXPECT_EQ(Registry().at(lib.cfgString).second, dev.get()) << "unregistered too early";
        if (polls++ != 0)
            Platform().IODone(host.held.at(polls - 2), 512);
    };
    journal.Reset(1);
    dev->TcmuDevClose();
    EXPECT_THAT(aborted, UnorderedElementsAreArray(host.held));
    const Strings done{"sleep 2.0", "+dev", "done 0/000000", "doorbell", "-dev", "+dev", "-dev"};
    EXPECT_EQ(journal.Events(),
              expected + Strings({"-dev", "[1] pending i/os 2", "sleep 2.0", "+dev", "-dev"}) +
                  Strings({"[1] pending i/os 2"}) + done + Strings({"[1] pending i/os 1"}) + done +
                  Strings({"+map", "-map",
                           "[0] close success " + lib.cfgString + " " + PrintToString(dev.get()),
                           "+dev", "-dev"}));
    EXPECT_EQ(Counters(*dev), "opens:1 closes:1 aborted:2 waits:3 iosDone:2 ");
    EXPECT_EQ(Lent(), 0U);
    EXPECT_EQ(dev->TcmuDevCfgString(), "");
    EXPECT_EQ(BStoreInfo(*dev).first, nullptr);
    EXPECT_EQ(Registry().at(lib.cfgString).second, nullptr) << "the entry stays, without a device";
}

TEST_F(TcmuDevLifeTest, TransferBeforeTheLunIsKnownStaysPendingAndItsAbortCallsNobody) {
    auto dev = Open(false);
    const std::pair<MoScsiBStorOps*, void*> known[] = {
        {&host, nullptr}, {nullptr, &host.held}, {nullptr, nullptr}};
    std::list<TestCommand> commands;
    for (const auto& info : known) {
        BStoreInfo(*dev) = info;
        TestCommand& command = commands.emplace_back(Cdb{0x2A, 0, 0, 0, 0, 9, 0, 0, 1});
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), 2);
        EXPECT_EQ(SenseOf(command), 0x020401U);
    }
    EXPECT_EQ(Lent(), 3U);
    g_os.onSleep = [&] { dev->TcmuDevIODone(Pending(*dev).at(0), 512); };
    dev->TcmuDevClose();
    EXPECT_EQ(Counters(*dev), "opens:1 closes:1 aborted:3 waits:3 iosDone:3 ");
    EXPECT_THAT(journal.Events(), Not(Contains("Abort")));
    EXPECT_EQ(Errors(), Strings());
}
