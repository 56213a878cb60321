// The data operations of a user LUN: every backing and engine moves the same bytes.
#include "host/data/LunData.h"

#include <gmock/gmock.h>
#include <liburing.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HeapProbe.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

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
using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using testing::ElementsAre;

constexpr uint64_t kSize = 256 * 1024;

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class EveryEngine : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        CapturingLogWriter::Installed().Reset(kLogError);
        LunDataConfig config{"lun", Backing::File, m_directory.File("data"), kSize, {}, {}};
        if (GetParam() == "memory")
            config.backing = Backing::Memory;
        config.engine =
            GetParam() == "threads" ? FileEngineChoice::Threads : FileEngineChoice::Uring;
        LunDataResult made = MakeLunData(config, m_platform);
        if (made.data == nullptr && GetParam() == "io_uring" &&
            made.error.find("Operation not permitted") != std::string::npos)
            GTEST_SKIP() << "the kernel refuses io_uring here: " << made.error;
        ASSERT_TRUE(made.data) << made.error;
        m_lun = std::move(made.data);
        ASSERT_EQ(m_lun->Snapshot().engine, GetParam());
    }

    void Begin(Context& context, bool write) {
        write ? m_lun->Write(m_lun->Context(), &context.io, 0)
              : m_lun->Read(m_lun->Context(), &context.io, 0);
    }
    long Result(Context& context) { return m_platform.Take(&context.io).bytes; }

    Directory m_directory;
    FakePlatform m_platform;
    std::unique_ptr<LunData> m_lun;
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
        std::vector<size_t> parts;
        uint64_t held = 0;
        for (uint64_t i = draw(15); i > 0; --i) {
            parts.push_back(draw(4) == 0 ? 0 : draw(5000));
            held += parts.back();
        }
        Context context(offset, length, parts, '\xEE');
        if (write)
            for (char& byte : context.bytes)
                byte = static_cast<char>(random());
        std::string wanted = context.bytes;
        const uint64_t within = offset < kSize ? kSize - offset : 0;
        const uint64_t moved = std::min({length, held, within});
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
    const LunStatistics seen = m_lun->Snapshot();
    EXPECT_THAT((std::vector{seen.reads, seen.writes, seen.bytesRead, seen.bytesWritten,
                             seen.errors, seen.onLoan}),
                ElementsAre(expected.reads, expected.writes, expected.bytesRead,
                            expected.bytesWritten, expected.errors, 0));
    m_lun.reset();
    if (GetParam() != "memory") {
        EXPECT_TRUE(Content(m_directory.File("data")) == model);
    }
}

TEST_P(EveryEngine, ServesMoreAtOnceThanTheQueueIsDeep) {
    constexpr uint64_t kBlock = 512;
    std::vector<std::unique_ptr<Context>> contexts;
    std::string written;
    for (uint64_t offset = 0; offset < kSize; offset += kBlock) {
        const char fill = static_cast<char>(offset / kBlock % 251);
        contexts.push_back(std::make_unique<Context>(offset, kBlock, fill));
        written.append(kBlock, fill);
        Begin(*contexts.back(), true);
    }
    for (const auto& context : contexts)
        ASSERT_EQ(Result(*context), kBlock);
    Context whole(0, kSize);
    Begin(whole, false);
    EXPECT_EQ(Result(whole), kSize);
    EXPECT_TRUE(whole.bytes == written);
    EXPECT_EQ(m_lun->Snapshot().onLoan, 0U);
}

TEST_P(EveryEngine, RefusesWhatComesAfterStop) {
    m_lun->Stop();
    m_lun->Stop();
    Context late(0, 512);
    Begin(late, false);
    EXPECT_EQ(Result(late), -ESHUTDOWN);
}

TEST(LunDataUring, ARequestThatTheKernelRefusesFailsAlone) {
    const Directory directory;
    FakePlatform platform;
    LunDataResult made = MakeLunData(
        {"lun", Backing::File, directory.File("data"), kSize, {}, FileEngineChoice::Uring},
        platform);
    if (made.data == nullptr)
        GTEST_SKIP() << made.error;
    Context refused(0, 512, 'r');
    Context delayed(0, 512, 'd');
    g_refusals = {-ENOMEM};
    made.data->Write(nullptr, &refused.io, 0);
    EXPECT_EQ(platform.Take(&refused.io).bytes, -ENOMEM);
    g_refusals = {-EINTR, -EBUSY, -EAGAIN};
    made.data->Write(nullptr, &delayed.io, 0);
    EXPECT_EQ(platform.Take(&delayed.io).bytes, 512);
    made.data->Stop();
    EXPECT_EQ(made.data->Snapshot().ignoredCompletions, 0U);
    EXPECT_EQ(Content(directory.File("data")).substr(0, 512), std::string(512, 'd'));
}

TEST(LunDataMemory, TakesNoHeapOnceWarm) {
    // The fake's own bookkeeping allocates.
    struct Quiet : FakePlatform {
        CRyError IODone(MoScsiSrvIO* /*ioctx*/, long /*nbytes*/) override { return {}; }
    } quiet;
    const LunDataResult made = MakeLunData({"lun", Backing::Memory, "", kSize, {}, {}}, quiet);
    ASSERT_TRUE(made.data) << made.error;
    Context context(0, 16 * 512, std::vector<size_t>(16, 512));
    made.data->Write(nullptr, &context.io, 0);
    const size_t before = heap_probe::Allocations();
    for (int i = 0; i < 1000; ++i)
        made.data->Read(nullptr, &context.io, 0);
    EXPECT_EQ(heap_probe::Allocations(), before);
    EXPECT_EQ(made.data->Snapshot().reads, 1000U);
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
