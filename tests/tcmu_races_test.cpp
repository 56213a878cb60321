// Devices under several threads. Orders are forced where they matter: the host stops inside its
// operation until the other thread has passed.

#include <condition_variable>
#include <deque>
#include <thread>

#include "tests/support/TcmuDevFixture.h"

using testing::IsEmpty;

namespace {

/// Hands contexts to threads that complete them; each command's memory is freed at its completion,
/// so that a sanitizer sees whoever touches it later.
struct TcmuDevRaceTest : MoScsiSrvTcmuDevTest {
    std::deque<MoScsiSrvIO*> queue MO_GUARDED_BY(queueMutex);
    bool ended MO_GUARDED_BY(queueMutex) = false;
    Mutex queueMutex;
    std::condition_variable_any queueChanged;
    std::atomic<size_t> completed{0};
    std::vector<std::thread> threads;

    TcmuDevRaceTest() {
        lib.onComplete = [this](const tcmu_device::Completion& completion) {
            delete static_cast<TestCommand*>(completion.cmd);
            ++completed;
        };
    }
    static TestCommand* NewRead(uint8_t blocks = 1) {
        return new TestCommand({0x28, 0, 0, 0, 0, 0, 0, 0, blocks}, {512, 512});
    }
    void Push(MoScsiSrvIO* ioctx) {
        MutexGuard guard(queueMutex);
        queue.push_back(ioctx);
        queueChanged.notify_one();
    }
    void StartCompleters(int count) {
        for (int i = 0; i < count; ++i)
            threads.emplace_back([this] { Complete(); });
    }
    void JoinCompleters() {
        {
            MutexGuard guard(queueMutex);
            ended = true;
            queueChanged.notify_all();
        }
        for (std::thread& thread : threads)
            thread.join();
    }

  private:
    void Complete() {
        while (true) {
            queueMutex.lock();
            while (queue.empty() && !ended)
                queueChanged.wait(queueMutex);
            if (queue.empty()) {
                queueMutex.unlock();
                return;
            }
            MoScsiSrvIO* ioctx = queue.front();
            queue.pop_front();
            queueMutex.unlock();
            platform->IODone(ioctx, static_cast<long>(ioctx->length));
        }
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
    StartCompleters(3);
    constexpr size_t kCommands = 3000;
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
    StartCompleters(2);
    dev->TcmuDevClose();
    EXPECT_EQ(completed, 50U) << "closed before the last completion";
    // A stray second completion may still come while the name is being forgotten.
    EXPECT_EQ(dev->TcmuDevIODone(host.held[0], 512), 2);
    JoinCompleters();
    EXPECT_EQ(Lent(), 0U);
    EXPECT_EQ(MoScsiSrvLIOTest::Device(lib.cfgString), nullptr);
}

}  // namespace
