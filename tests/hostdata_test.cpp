// The data operations of a user LUN: every backing and engine moves the same bytes.
#include "host/data/LunData.h"

#include <liburing.h>

#include <cerrno>
#include <deque>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/HeapProbe.h"
#include "tests/support/HostData.h"

namespace {

std::vector<int> g_refusals;  ///< what io_uring_submit answers, last first, before it works again

}  // namespace

extern "C" int __real_io_uring_submit(io_uring* ring);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_io_uring_submit(io_uring* ring) {  // NOLINT(bugprone-reserved-identifier)
    if (g_refusals.empty())
        return __real_io_uring_submit(ring);
    const int answer = g_refusals.back();
    g_refusals.pop_back();
    return answer;
}

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::LunTest;
using testing::ElementsAre;

constexpr uint64_t kSize = 256 * 1024;

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

struct EveryEngine : LunTest, testing::WithParamInterface<std::string> {
    void SetUp() override {
        LunDataConfig config{"lun", Backing::File, path, kSize, {}, FileEngineChoice::Uring};
        if (GetParam() == "memory")
            config.backing = Backing::Memory;
        else if (GetParam() == "threads")
            config.engine = FileEngineChoice::Threads;
        LunDataResult made = MakeLunData(config, platform);
        if (GetParam() == "io_uring" && made.error.find("not permitted") != std::string::npos)
            GTEST_SKIP() << "the kernel refuses io_uring here: " << made.error;
        ASSERT_TRUE(made.data) << made.error;
        lun = std::move(made.data);
        ASSERT_EQ(lun->Snapshot().engine, GetParam());
    }
};

INSTANTIATE_TEST_SUITE_P(Data, EveryEngine, testing::Values("memory", "io_uring", "threads"));

TEST_P(EveryEngine, MovesAsAModelDoesWhateverTheBuffersAndTheRange) {
    std::mt19937 random(20240611);  // NOLINT(cert-msc51-cpp)
    const auto draw = [&](uint64_t most) { return random() % (most + 1); };
    std::string model(kSize, '\0');
    LunStatistics expected;
    for (int round = 0; round < 400; ++round) {
        const bool write = draw(1) == 0;
        const uint64_t offset = draw(9) == 0 ? kSize - 2000 + draw(4000) : draw(kSize);
        const uint64_t length = draw(20'000);
        std::vector<size_t> parts(draw(15));
        std::generate(parts.begin(), parts.end(), [&] { return draw(4) == 0 ? 0 : draw(5000); });
        Context context(offset, length, parts);
        std::generate(context.bytes.begin(), context.bytes.end(), std::ref(random));
        std::string wanted = context.bytes;
        const uint64_t within = offset < kSize ? kSize - offset : 0;
        const uint64_t moved = std::min({length, wanted.size(), within});
        if (write)
            std::copy_n(wanted.begin(), moved, model.begin() + std::min(offset, kSize));
        else if (moved > 0)
            std::copy_n(model.begin() + offset, moved, wanted.begin());
        Begin(context, write);
        // The record's own list is the device's again at once; only the buffers stay.
        context.buffers.clear();
        ASSERT_EQ(Result(context), moved) << "round " << round;
        ASSERT_TRUE(context.bytes == wanted) << "round " << round;
        ++(write ? expected.writes : expected.reads);
        (write ? expected.bytesWritten : expected.bytesRead) += moved;
        expected.errors += moved != length ? 1 : 0;
    }
    const LunStatistics seen = lun->Snapshot();
    EXPECT_THAT((std::vector{seen.reads, seen.writes, seen.bytesRead, seen.bytesWritten,
                             seen.errors, seen.onLoan}),
                ElementsAre(expected.reads, expected.writes, expected.bytesRead,
                            expected.bytesWritten, expected.errors, 0));
    lun.reset();
    EXPECT_TRUE(GetParam() == "memory" || Content(path) == model);
}

TEST_P(EveryEngine, ServesMoreAtOnceThanTheQueueIsDeepAndNothingAfterStop) {
    std::deque<Context> contexts;
    for (uint64_t offset = 0; offset < kSize; offset += 512)
        Begin(contexts.emplace_back(offset, 512, static_cast<char>(offset / 512 % 251)), true);
    std::string written;
    for (Context& context : contexts) {
        ASSERT_EQ(Result(context), 512);
        written += context.bytes;
    }
    Context whole(0, kSize);
    Begin(whole, false);
    EXPECT_EQ(Result(whole), kSize);
    EXPECT_TRUE(whole.bytes == written);
    lun->Stop();
    lun->Stop();
    Begin(whole, false);
    EXPECT_EQ(Result(whole), -ESHUTDOWN);
}

TEST_F(LunTest, ARequestThatTheKernelsRingRefusesFailsAlone) {
    LunDataResult made =
        MakeLunData({"lun", Backing::File, path, kSize, {}, FileEngineChoice::Uring}, platform);
    if (made.data == nullptr)
        GTEST_SKIP() << made.error;
    lun = std::move(made.data);
    Context refused(0, 512, 'r');
    Context delayed(0, 512, 'd');
    g_refusals = {-ENOMEM};
    Begin(refused, true);
    EXPECT_EQ(Result(refused), -ENOMEM);
    g_refusals = {-EINTR, -EBUSY, -EAGAIN};
    Begin(delayed, true);
    EXPECT_EQ(Result(delayed), 512);
    lun->Stop();
    EXPECT_EQ(lun->Snapshot().ignoredCompletions, 0U);
    EXPECT_EQ(Content(path).substr(0, 512), delayed.bytes);
}

TEST_F(LunTest, MemoryTakesNoHeapOnceWarm) {
    NullPlatform quiet;
    lun = MakeLunData({"lun", Backing::Memory, "", kSize, {}, {}}, quiet).data;
    Context context(0, 16 * 512, std::vector<size_t>(16, 512));
    Begin(context, true);
    const size_t before = heap_probe::Allocations();
    for (int i = 0; i < 1000; ++i)
        Begin(context, false);
    EXPECT_EQ(heap_probe::Allocations(), before);
    EXPECT_EQ(lun->Snapshot().reads, 1000U);
    lun.reset();
}

TEST(LunStatisticsJson, NamesEachCounter) {
    LunStatistics statistics{"memory", "memory", 1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    EXPECT_EQ(ToJson(statistics).dump(),
              R"({"aborted":8,"backing":"memory","bytes_read":3,"bytes_written":4,)"
              R"("engine":"memory","errors":5,"faults":6,"ignored_completions":10,)"
              R"("on_loan":7,"reads":1,"unknown_aborts":9,"writes":2})");
}

}  // namespace
}  // namespace moscsi::data
