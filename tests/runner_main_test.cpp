#include <gmock/gmock.h>

#include <csignal>
#include <cstdlib>
#include <thread>

#include "adapters/runner/InterruptWait.h"
#include "adapters/runner/tcmu_runner.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeLibtcmuApi.h"

TEST(TcmuRunnerMainTest, RefusesOtherArgumentsAndGoesOnWithItsOwn) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    std::string arguments[] = {"tcmu_runner_main", "--handler-path=", "--other=x"};
    const struct {
        int argc;
        size_t second;
        const char* line;
    } calls[] = {
        {2, 1, "no system D-Bus"}, {2, 2, "--handler-path=PATH"}, {1, 1, "--handler-path=PATH"}};
    for (const auto& [argc, second, line] : calls) {
        CapturingLogWriter::Installed().Reset(0);
        char* argv[] = {arguments[0].data(), argc > 1 ? arguments[second].data() : nullptr,
                        nullptr};
        EXPECT_EQ(tcmu_runner_main(argc, argv), 1);
        EXPECT_THAT(CapturingLogWriter::Installed().Texts(-1),
                    testing::ElementsAre(testing::HasSubstr(line)));
    }
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
    ASSERT_TRUE(FakeDevice::Eventually([&] { return waiting.load(); }));
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
