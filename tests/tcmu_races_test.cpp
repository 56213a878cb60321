// Devices under several threads. Orders are forced where they matter: the host stops inside its
// operation until the other thread has passed.

#include <future>

#include "tests/support/TcmuDevFixture.h"

namespace {

/// Each transfer is completed by a thread of its own; each command's memory is freed at its
/// completion, so that a sanitizer sees whoever touches it later.
struct TcmuDevRaceTest : MoScsiSrvTcmuDevTest {
    std::unique_ptr<MoScsiSrvTcmuDev> dev = Open();
    std::atomic<size_t> completed{0};
    std::vector<std::future<void>> completions;
    HeldTransfers::Hook completeElsewhere = [this](MoScsiSrvIO* ioctx) {
        completions.push_back(
            std::async(std::launch::async, [=, this] { Platform().IODone(ioctx, 512); }));
    };

    TcmuDevRaceTest() {
        lib.onComplete = [this](tcmulib_cmd* cmd) {
            delete static_cast<TestCommand*>(cmd);
            ++completed;
        };
        journal.Reset(-1, false);
    }
    void SubmitReads(int count) {
        const Cdb cdb{0x28, 0, 0, 0, 0, 0, 0, 0, 1};
        for (int i = 0; i < count; ++i)
            ASSERT_EQ(dev->TcmuDevCmdHandler(new TestCommand(cdb, {512, 512})), -2);
    }
    void ExpectAllDone(size_t count) {
        completions.clear();  // waits
        EXPECT_EQ(completed, count);
        EXPECT_EQ(dev->GetStats().commands[MoScsiSrvTcmuDev::Stats::kIosDone], count);
        EXPECT_EQ(dev->Pending(), 0U);
        EXPECT_EQ(Lent(), 0U);
    }
};

TEST_F(TcmuDevRaceTest, CompletionBeforeReadReturnsFindsItsCommand) {
    host.onTransfer = [&](MoScsiSrvIO* ioctx) {
        completeElsewhere(ioctx);
        completions.back().wait();
    };
    SubmitReads(1);
    ExpectAllDone(1);
}

TEST_F(TcmuDevRaceTest, CompletionsOnManyThreadsRaceWithSubmissionAndLoseNothing) {
    host.onTransfer = completeElsewhere;
    SubmitReads(500);
    ExpectAllDone(500);
}

TEST_F(TcmuDevRaceTest, CloseDrainsWhatOtherThreadsCompleteAfterTheAbort) {
    SubmitReads(50);
    host.onAbort = completeElsewhere;  // which waits for the mutex
    g_os.onSleep = [] { std::this_thread::yield(); };
    dev->TcmuDevClose();
    EXPECT_EQ(completed, 50U) << "closed before the last completion";
    // A stray second completion may still come while the name is being forgotten.
    EXPECT_EQ(dev->TcmuDevIODone(host.held[0], 512), 2);
    ExpectAllDone(50);
    EXPECT_EQ(Registry().at(lib.cfgString).second, nullptr);
}

}  // namespace
