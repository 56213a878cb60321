// The status's socket, when what it answers with fails; how far a plan is said to be.

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <vector>

#include "host/service/StepCount.h"
#include "host/status/StatusSocket.h"
#include "tests/support/TempDirectory.h"

TEST(StatusServerTest, AnswersWithoutMemoryOrDescriptors) {
    const TempDirectory directory;
    std::atomic<bool> fails{false};
    StatusServer server(directory.path / "socket",
                        [&] { return fails ? throw std::bad_alloc() : std::string("good"); });
    ASSERT_EQ(server.Start(), "");
    std::string error;
    const auto ask = [&] { return AskStatus(directory.path / "socket", error); };
    fails = true;
    EXPECT_EQ(ask(), R"({"error":"std::bad_alloc"})");
    fails = false;
    EXPECT_EQ(ask(), "good");

    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    const rlimit few{64, limit.rlim_max};
    setrlimit(RLIMIT_NOFILE, &few);
    std::vector<int> taken;
    for (int fd = dup(0); fd >= 0; fd = dup(0))
        taken.push_back(fd);
    close(taken.back());  // for this side of the connection
    taken.pop_back();
    for (int i = 0; i < 2; ++i)
        EXPECT_EQ(ask(), "good") << error;
    for (const int fd : taken)
        close(fd);
    setrlimit(RLIMIT_NOFILE, &limit);
}

TEST(StepCountTest, OfALongPlanTheTimeLeftIsToldByTheStepsBefore) {
    const StepCount::Clock::time_point begin{};
    StepCount count(16, begin);
    EXPECT_EQ(count.Done(begin + std::chrono::seconds(2)), " (1 of 16, about 30 s left)");
    EXPECT_EQ(count.Done(begin + std::chrono::milliseconds(2100)), " (2 of 16, about 15 s left)");
    EXPECT_EQ(StepCount(15, begin).Done(begin), "");
}
