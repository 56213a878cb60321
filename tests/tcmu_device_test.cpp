// The life of a TCMU device's handler: open, its failures, close.

#include <thread>

#include "tests/support/TcmuDevFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using TcmuDevLifeTest = MoScsiSrvTcmuDevTest;

TEST_F(TcmuDevLifeTest, OpenLearnsTheGeometryAndRegisters) {
    lib.hwBlockSize = 4096;
    lib.size = 10000;
    MoScsiSrvTcmuDev dev(&lib);
    EXPECT_EQ(dev.TcmuDevCfgString(), "");
    ASSERT_EQ(dev.TcmuDevOpen(), 0);
    EXPECT_EQ(lib.blockSize, 4096U);
    EXPECT_EQ(lib.numLbas, 2U) << "the remainder is dropped";
    EXPECT_EQ(lib.priv, &dev);
    EXPECT_EQ(dev.TcmuDevCfgString(), lib.cfgString);
    EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString), &dev);
    EXPECT_THAT(log.Texts(0),
                ElementsAre(Format("open success %s %p", lib.cfgString.c_str(), &dev)));
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(dev.GetStats().opens, 1U);
    EXPECT_EQ(dev.GetStats().openErrors, 0U);
}

TEST_F(TcmuDevLifeTest, FailedOpenLeavesTheObjectClosed) {
    const struct {
        int block;
        int64_t size;
        const char* message;
    } rows[] = {{-22, 4096, "Could not get device block size\n"},
                {0, 4096, "Could not get device block size\n"},
                {512, -22, "Could not get device size\n"}};
    for (const auto& row : rows) {
        lib.hwBlockSize = row.block;
        lib.size = row.size;
        auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
        log.Reset(1);
        EXPECT_EQ(dev->TcmuDevOpen(), -22) << row.message;
        EXPECT_THAT(Errors(), ElementsAre(row.message, "open error " + lib.cfgString));
        EXPECT_EQ(dev->GetStats().opens, 1U);
        EXPECT_EQ(dev->GetStats().openErrors, 1U);
        EXPECT_EQ(dev->TcmuDevCfgString(), "");
        EXPECT_EQ(lib.priv, dev.get()) << "left on the library's device";
        EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString), nullptr);

        log.Reset(1);
        EXPECT_EQ(dev->TcmuDevOpen(), -22);
        dev->TcmuDevClose();
        TestCommand command({0x00});
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -1);
        EXPECT_THAT(Errors(),
                    ElementsAre("device not initialized", "tcmu dev close error, null m_dev",
                                Format("ioerr: dev not initialized %p", dev.get())));
        EXPECT_EQ(dev->GetStats().closeErrors, 1U);
        EXPECT_EQ(dev->GetStats().closes, 0U);
        EXPECT_EQ(dev->GetStats().openErrors, 1U);
        EXPECT_EQ(Counter(*dev, 0), 0U) << "nothing is counted without a device";
        log.Reset(1);
        dev.reset();
        EXPECT_THAT(log.Lines(), IsEmpty()) << "closed twice";
    }
}

TEST_F(TcmuDevLifeTest, DeviceWithoutANameKeepsItsDeviceAndIsClosedInTheEnd) {
    lib.cfgString.clear();
    auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
    log.Reset(1);
    EXPECT_EQ(dev->TcmuDevOpen(), -22);
    EXPECT_THAT(Errors(), ElementsAre("no configuration found in cfgstring"));
    EXPECT_EQ(dev->GetStats().openErrors, 0U);
    EXPECT_EQ(lib.priv, nullptr);
    const std::string closed = Format("close success %s %p", "", dev.get());
    dev.reset();
    EXPECT_THAT(log.Texts(1), testing::Contains("UnRegisterTcmuDev error "));
    EXPECT_THAT(log.Texts(0), ElementsAre(closed));
}

TEST_F(TcmuDevLifeTest, CloseAbortsWhatIsPendingAndPollsUntilTheHostHasGivenItBack) {
    auto dev = Open();
    TestCommand commands[] = {TestCommand({0x28, 0, 0, 0, 0, 0, 0, 0, 1}),
                              TestCommand({0x2A, 0, 0, 0, 0, 0, 0, 0, 1}),
                              TestCommand({0x28, 0, 0, 0, 0, 1, 0, 0, 1})};
    std::vector<std::string> aborts;
    for (TestCommand& command : commands) {
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -2);
        aborts.push_back(Format("aborting cmd %p %p", host.held.back(), &command));
    }
    std::vector<MoScsiSrvIO*> aborted;
    host.onAbort = [&](MoScsiSrvIO* ioctx) {
        aborted.push_back(ioctx);
        EXPECT_FALSE(MutexIsFree(*dev));
    };
    std::vector<MoScsiSrvIO*> held = host.held;
    int polls = 0;
    TheSleepHook().instead = [&] {  // the host gives back nothing at the first poll, then one each
        EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString), dev.get()) << "unregistered too early";
        if (++polls == 1)
            return;
        std::thread([&] { platform->IODone(held.back(), 512); }).join();
        held.pop_back();
    };
    const void* address = dev.get();
    dev->TcmuDevClose();

    EXPECT_THAT(aborted, testing::UnorderedElementsAreArray(host.held));
    EXPECT_EQ(host.ops, "rwraaa");
    std::vector<std::string> lines = log.Texts(1);
    std::erase_if(lines, [](const std::string& line) { return line.starts_with("Instance"); });
    std::vector<std::string> expected = aborts;
    expected.insert(expected.end(),
                    {"pending i/os 3", "pending i/os 3", "pending i/os 2", "pending i/os 1"});
    EXPECT_THAT(lines, testing::UnorderedElementsAreArray(expected));
    EXPECT_THAT(TheSleepHook().seconds, ElementsAre(2, 2, 2, 2));
    EXPECT_THAT(log.Texts(0),
                ElementsAre(Format("close success %s %p", lib.cfgString.c_str(), address)));
    EXPECT_EQ(dev->GetStats().closes, 1U);
    EXPECT_EQ(dev->GetStats().abortedAtClose, 3U);
    EXPECT_EQ(dev->GetStats().waitsAtClose, 4U);
    EXPECT_EQ(Completions(), 3U);
    EXPECT_EQ(Lent(), 0U);
    EXPECT_EQ(dev->TcmuDevCfgString(), "");
    EXPECT_FALSE(KnowsItsLun(*dev));

    // The entry stays, without a device, and the next open takes it.
    bool found = false;
    EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString, &found), nullptr);
    EXPECT_TRUE(found);
    MoScsiSrvTcmuDev next(&lib);
    EXPECT_EQ(next.TcmuDevOpen(), 0);
}

TEST_F(TcmuDevLifeTest, CloseOfADeviceThatNeverLearntItsOperationsCallsNobody) {
    auto dev = Open(false);
    TestCommand command({0x28, 0, 0, 0, 0, 0, 0, 0, 1});
    EXPECT_EQ(dev->TcmuDevCmdHandler(&command), TCMU_STATUS_CHECK_CONDITION);
    TheSleepHook().instead = [&] { dev->TcmuDevIODone(PendingContexts(*dev).at(0), 512); };
    dev->TcmuDevClose();
    EXPECT_EQ(host.ops, "");
    EXPECT_EQ(dev->GetStats().abortedAtClose, 1U);
    EXPECT_EQ(dev->GetStats().waitsAtClose, 1U);
}

}  // namespace
