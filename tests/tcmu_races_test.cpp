// Devices under several threads. Orders are forced where they matter: the host stops inside its
// operation until the other thread has passed.

#include <thread>

#include "tests/support/TcmuDevFixture.h"

namespace {

/// Hands contexts to threads that complete them; each command's memory is freed at its completion,
/// so that a sanitizer sees whoever touches it later.
struct TcmuDevRaceTest : MoScsiSrvTcmuDevTest {
    std::unique_ptr<MoScsiSrvTcmuDev> dev = Open();
    Mutex queueMutex;
    std::vector<MoScsiSrvIO*> queue MO_GUARDED_BY(queueMutex);
    std::atomic<size_t> completed{0};
    std::vector<std::thread> threads;
    HeldTransfers::Hook push = [this](MoScsiSrvIO* ioctx) {
        MutexGuard guard(queueMutex);
        queue.push_back(ioctx);
    };

    TcmuDevRaceTest() {
        lib.onComplete = [this](tcmulib_cmd* cmd) {
            delete static_cast<TestCommand*>(cmd);
            ++completed;
        };
        journal.Reset(-1, false);
    }
    void SubmitRead() {
        const Cdb cdb{0x28, 0, 0, 0, 0, 0, 0, 0, 1};
        ASSERT_EQ(dev->TcmuDevCmdHandler(new TestCommand(cdb, {512, 512})), -2);
    }
    /// Each thread completes what is queued until `count` commands are completed.
    void StartCompleters(int number, size_t count) {
        for (int i = 0; i < number; ++i)
            threads.emplace_back([this, count] {
                while (completed < count) {
                    std::vector<MoScsiSrvIO*> batch;
                    queueMutex.lock();
                    batch.swap(queue);
                    queueMutex.unlock();
                    for (MoScsiSrvIO* ioctx : batch)
                        Platform().IODone(ioctx, static_cast<long>(ioctx->length));
                    std::this_thread::yield();
                }
            });
    }
    void ExpectAllDone(size_t count) {
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(completed, count);
        EXPECT_EQ(dev->GetStats().commands[MoScsiSrvTcmuDev::Stats::kIosDone], count);
        EXPECT_EQ(dev->Pending(), 0U);
        EXPECT_EQ(Lent(), 0U);
    }
};

TEST_F(TcmuDevRaceTest, CompletionBeforeReadReturnsFindsItsCommand) {
    host.onTransfer = [&](MoScsiSrvIO* ioctx) {
        std::thread([&] { Platform().IODone(ioctx, 512); }).join();
    };
    SubmitRead();
    ExpectAllDone(1);
}

TEST_F(TcmuDevRaceTest, CompletionsOnManyThreadsRaceWithSubmissionAndLoseNothing) {
    host.onTransfer = push;
    StartCompleters(3, 3000);
    for (size_t i = 0; i < 3000; ++i)
        SubmitRead();
    ExpectAllDone(3000);
}

TEST_F(TcmuDevRaceTest, CloseDrainsWhatOtherThreadsCompleteAfterTheAbort) {
    for (int i = 0; i < 50; ++i)
        SubmitRead();
    host.onAbort = push;  // completion waits for the mutex
    g_os.onSleep = [] { std::this_thread::yield(); };
    StartCompleters(2, 50);
    dev->TcmuDevClose();
    EXPECT_EQ(completed, 50U) << "closed before the last completion";
    // A stray second completion may still come while the name is being forgotten.
    EXPECT_EQ(dev->TcmuDevIODone(host.held[0], 512), 2);
    ExpectAllDone(50);
    EXPECT_EQ(Entry(lib.cfgString)->second, nullptr);
}

}  // namespace
