// Devices under several threads. Orders are forced where they matter: the host stops inside its
// operation until the other thread has passed.

#include <thread>

#include "tests/support/TcmuDevFixture.h"

using testing::IsEmpty;

namespace {

/// Hands contexts to threads that complete them; each command's memory is freed at its completion,
/// so that a sanitizer sees whoever touches it later.
struct TcmuDevRaceTest : MoScsiSrvTcmuDevTest {
    Mutex queueMutex;
    std::vector<MoScsiSrvIO*> queue MO_GUARDED_BY(queueMutex);
    std::atomic<size_t> completed{0};
    std::vector<std::thread> threads;

    TcmuDevRaceTest() {
        lib.onComplete = [this](const tcmu_device::Completion& completion) {
            delete static_cast<TestCommand*>(completion.cmd);
            ++completed;
        };
    }
    static TestCommand* NewRead() {
        return new TestCommand({0x28, 0, 0, 0, 0, 0, 0, 0, 1}, {512, 512});
    }
    void Push(MoScsiSrvIO* ioctx) {
        MutexGuard guard(queueMutex);
        queue.push_back(ioctx);
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
                        platform->IODone(ioctx, static_cast<long>(ioctx->length));
                    std::this_thread::yield();
                }
            });
    }
    void JoinCompleters() {
        for (std::thread& thread : threads)
            thread.join();
    }
};

TEST_F(TcmuDevRaceTest, CompletionBeforeReadReturnsFindsItsCommand) {
    auto dev = Open();
    host.onTransfer = [&](MoScsiSrvIO* ioctx) {
        EXPECT_TRUE(MutexIsFree(*dev)) << "the host is called without a lock";
        const auto length = static_cast<long>(ioctx->length);
        std::thread([&] { platform->IODone(ioctx, length); }).join();
    };
    EXPECT_EQ(dev->TcmuDevCmdHandler(NewRead()), -2);
    EXPECT_EQ(completed, 1U);
    EXPECT_EQ(dev->Pending(), 0U);
    EXPECT_EQ(Lent(), 0U);
}

TEST_F(TcmuDevRaceTest, CompletionsOnManyThreadsRaceWithSubmissionAndLoseNothing) {
    auto dev = Open();
    host.onTransfer = [&](MoScsiSrvIO* ioctx) { Push(ioctx); };
    constexpr size_t kCommands = 3000;
    StartCompleters(3, kCommands);
    for (size_t i = 0; i < kCommands; ++i) {
        TestCommand* command = NewRead();
        ASSERT_EQ(dev->TcmuDevCmdHandler(command), -2);
    }
    JoinCompleters();
    EXPECT_EQ(completed, kCommands);
    EXPECT_EQ(Counter(*dev, Stats::kIosDone), kCommands);
    EXPECT_EQ(dev->Pending(), 0U);
    EXPECT_EQ(Lent(), 0U);
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(TcmuDevRaceTest, CloseDrainsWhatOtherThreadsCompleteAfterTheAbort) {
    auto dev = Open();
    for (int i = 0; i < 50; ++i)
        ASSERT_EQ(dev->TcmuDevCmdHandler(NewRead()), -2);
    host.onAbort = [&](MoScsiSrvIO* ioctx) { Push(ioctx); };  // completion waits for the mutex
    TheSleepHook().instead = [] { std::this_thread::yield(); };
    StartCompleters(2, 50);
    dev->TcmuDevClose();
    EXPECT_EQ(completed, 50U) << "closed before the last completion";
    // A stray second completion may still come while the name is being forgotten.
    EXPECT_EQ(dev->TcmuDevIODone(host.held[0], 512), 2);
    JoinCompleters();
    EXPECT_EQ(Lent(), 0U);
    EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString), nullptr);
}

}  // namespace
