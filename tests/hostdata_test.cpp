// The data operations of a user LUN: what moves, what is reported, and by whom.
#include "host/data/LunData.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <random>

#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "host/data/ThreadQueue.h"
#include "host/data/UringQueue.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HeapProbe.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::Eventually;
using hostdata_test::FakePlatform;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSize = 256 * 1024;

std::string Content(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Cuts requests short and interrupts some, as a kernel may.
class StingyQueue : public FileQueue {
  public:
    static std::unique_ptr<FileQueue> Make(int fd, Ended ended, std::string& error) {
        auto queue = std::make_unique<StingyQueue>();
        queue->m_ended = ended;
        queue->m_real = ThreadQueue::Make(fd, std::move(ended), error);
        return queue;
    }
    const char* Name() const override { return "stingy"; }
    size_t Depth() const override { return 3; }
    void Submit(const FileRequest& request) override {
        thread_local std::mt19937 random(7);  // NOLINT(cert-msc51-cpp)
        if (random() % 5 == 0) {
            m_ended(request.ticket, random() % 2 == 0 ? -EINTR : -ECANCELED);
            return;
        }
        FileRequest cut = request;
        cut.count = 1;
        if (random() % 2 == 0 && request.iov->iov_len > 1) {
            auto part = std::make_unique<iovec>(*request.iov);
            part->iov_len = 1 + random() % (part->iov_len - 1);
            cut.iov = part.get();
            const MutexGuard guard(m_mutex);
            m_kept.push_back(std::move(part));
        }
        m_real->Submit(cut);
    }
    void Stop() override { m_real->Stop(); }

  private:
    Ended m_ended;
    Mutex m_mutex;
    std::vector<std::unique_ptr<iovec>> m_kept MO_GUARDED_BY(m_mutex);
    std::unique_ptr<FileQueue> m_real;
};

std::unique_ptr<LunData> MakeOver(const FileQueueMaker& maker, const LunDataConfig& config,
                                  FakePlatform& platform) {
    std::string error;
    BackingFile file;
    auto parts = std::make_unique<LunData::Parts>(config, platform);
    if (!file.Open(config.path, config.sizeBytes, error))
        throw std::runtime_error(error);
    parts->engine = FileEngine::Make(file, config.faults.durable, parts->transfers, maker, error);
    if (!parts->engine)
        throw std::runtime_error(error);
    return std::make_unique<LunData>(std::move(parts));
}

// ---- Every backing and engine moves the same bytes -------------------------------------------

class EveryEngine : public testing::TestWithParam<std::string> {
  protected:
    void SetUp() override {
        CapturingLogWriter::Installed().Reset(kLogError);
        LunDataConfig config{"lun", Backing::File, m_directory.File("data"), kSize, {}, {}};
        if (GetParam() == "stingy") {
            m_lun = MakeOver(StingyQueue::Make, config, m_platform);
            return;
        }
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
        if (write)
            m_lun->Write(m_lun->Context(), &context.io, 0);
        else
            m_lun->Read(m_lun->Context(), &context.io, 0);
    }

    Directory m_directory;
    FakePlatform m_platform;
    std::unique_ptr<LunData> m_lun;
};

INSTANTIATE_TEST_SUITE_P(Data, EveryEngine,
                         testing::Values("memory", "io_uring", "threads", "stingy"));

TEST_P(EveryEngine, MovesAsAModelDoesWhateverTheBuffersAndTheRange) {
    std::mt19937 random(20240611);  // NOLINT(cert-msc51-cpp)
    const auto draw = [&](uint64_t most) { return random() % (most + 1); };
    std::string model(kSize, '\0');
    LunStatistics expected;
    for (int round = 0; round < 600; ++round) {
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
        ASSERT_EQ(m_platform.Wait(&context.io).bytes, moved) << "round " << round;
        ASSERT_TRUE(context.bytes == wanted) << "round " << round;
        m_platform.Forget(&context.io);
        ++(write ? expected.writes : expected.reads);
        (write ? expected.bytesWritten : expected.bytesRead) += moved;
        expected.errors += moved != length ? 1 : 0;
    }
    const LunStatistics seen = m_lun->Snapshot();
    EXPECT_THAT(
        (std::vector{seen.reads, seen.writes, seen.bytesRead, seen.bytesWritten, seen.errors,
                     seen.onLoan, seen.ignoredCompletions, seen.unknownAborts, seen.faults}),
        ElementsAre(expected.reads, expected.writes, expected.bytesRead, expected.bytesWritten,
                    expected.errors, 0, 0, 0, 0));
    m_lun.reset();
    if (GetParam() != "memory") {
        EXPECT_TRUE(Content(m_directory.File("data")) == model);
    }
}

TEST_P(EveryEngine, ServesMoreAtOnceThanTheQueueIsDeep) {
    constexpr uint64_t kBlock = 512;
    std::vector<std::unique_ptr<Context>> contexts;
    const auto all = [&](bool write) {
        for (uint64_t i = 0; i < kSize / kBlock; ++i) {
            contexts.push_back(std::make_unique<Context>(
                i * kBlock, kBlock, write ? static_cast<char>(i % 251 + 1) : '\0'));
            Begin(*contexts.back(), write);
        }
        for (auto& context : contexts) {
            ASSERT_EQ(m_platform.Wait(&context->io).bytes, kBlock);
            m_platform.Forget(&context->io);
        }
    };
    all(true);
    contexts.clear();
    all(false);
    for (uint64_t i = 0; i < contexts.size(); ++i)
        ASSERT_TRUE(contexts[i]->bytes == std::string(kBlock, static_cast<char>(i % 251 + 1))) << i;
    EXPECT_EQ(m_lun->Snapshot().onLoan, 0U);
}

TEST_P(EveryEngine, RefusesWhatComesAfterStop) {
    m_lun->Stop();
    m_lun->Stop();
    Context late(0, 512);
    Begin(late, false);
    EXPECT_EQ(m_platform.Wait(&late.io).bytes, -ESHUTDOWN);
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

// ---- The order of events, with a queue that ends requests when the test says ------------------

class ScriptedQueue : public FileQueue {
  public:
    const char* Name() const override { return "scripted"; }
    size_t Depth() const override { return 2; }
    void Submit(const FileRequest& request) override {
        const MutexGuard guard(m_mutex);
        m_requests.push_back(request);
    }
    void Stop() override {}
    std::vector<FileRequest> Requests() {
        const MutexGuard guard(m_mutex);
        return m_requests;
    }
    Ended end;

  private:
    Mutex m_mutex;
    std::vector<FileRequest> m_requests MO_GUARDED_BY(m_mutex);
};

class Scripted : public testing::Test {
  protected:
    void Make(const FaultPlan& faults = {}) {
        CapturingLogWriter::Installed().Reset(kLogError);
        const auto maker = [this](int, FileQueue::Ended ended, std::string&) {
            auto queue = std::make_unique<ScriptedQueue>();
            queue->end = std::move(ended);
            m_queue = queue.get();
            return queue;
        };
        m_lun = MakeOver(maker, {"lun", Backing::File, m_directory.File("data"), kSize, faults, {}},
                         m_platform);
    }
    void Write(Context& context) { m_lun->Write(m_lun->Context(), &context.io, 0); }
    void Abort(Context& context) {
        // As the device does it: its mutex held. IODone from inside would never return.
        const MutexGuard device(m_platform.deviceMutex);
        m_lun->Abort(m_lun->Context(), &context.io);
    }

    Directory m_directory;
    FakePlatform m_platform;
    ScriptedQueue* m_queue = nullptr;
    std::unique_ptr<LunData> m_lun;
};

TEST_F(Scripted, AsksForDurableWritesUnlessATestSwitchedThemOff) {
    for (const bool durable : {true, false}) {
        FaultPlan plan;
        plan.durable = durable;
        Make(plan);
        Context write(0, 512);
        Context read(0, 512);
        Write(write);
        m_lun->Read(nullptr, &read.io, 0);
        const auto requests = m_queue->Requests();
        ASSERT_EQ(requests.size(), 2U);
        EXPECT_EQ(requests[0].write, true);
        EXPECT_EQ(requests[0].flags, durable ? RWF_DSYNC : 0);
        EXPECT_EQ(requests[1].write, false);
        EXPECT_EQ(requests[1].flags, 0);
        for (const FileRequest& each : requests)
            m_queue->end(each.ticket, 512);
        m_lun.reset();
    }
}

TEST_F(Scripted, ReportsTheBytesThatWereMovedBeforeAFailureOrTheEnd) {
    struct Case {
        std::vector<int64_t> results;
        long reported;
    };
    const std::vector<Case> cases = {
        {{1024}, 1024},      {{-EIO}, -EIO},  {{-ENOSPC}, -ENOSPC},   {{0}, 0},
        {{100, -EIO}, 100},  {{600, 0}, 600}, {{-EINTR, 1024}, 1024}, {{-ECANCELED, 1024}, 1024},
        {{1, 1, 1022}, 1024}};
    Make();
    for (const Case& each : cases) {
        Context context(4096, 1024, {512, 512});
        const size_t first = m_queue->Requests().size();
        Write(context);
        uint64_t done = 0;
        for (const int64_t result : each.results) {
            ASSERT_EQ(m_platform.Ends(&context.io), 0U);
            const FileRequest request = m_queue->Requests().back();
            EXPECT_EQ(request.offset, 4096 + done);
            EXPECT_EQ(request.count, done < 512 ? 2 : 1);
            EXPECT_EQ(request.iov->iov_base, context.bytes.data() + done);
            m_queue->end(request.ticket, result);
            done += result > 0 ? result : 0;
        }
        EXPECT_EQ(m_platform.Wait(&context.io).bytes, each.reported);
        EXPECT_EQ(m_queue->Requests().size(), first + each.results.size());
        m_platform.Forget(&context.io);
    }
}

TEST_F(Scripted, EndsATransferOnceEvenWhenItsPlaceServesAnother) {
    Make();
    Context first(0, 512);
    Write(first);
    const Ticket ticket = m_queue->Requests().back().ticket;
    m_queue->end(ticket, 512);
    m_queue->end(ticket, 512);
    Context second(512, 512);
    Write(second);
    m_queue->end(ticket, -EIO);
    EXPECT_EQ(m_platform.Ends(&first.io), 1U);
    EXPECT_EQ(m_platform.Ends(&second.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().ignoredCompletions, 2U);
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    EXPECT_THAT(CapturingLogWriter::Installed().Texts(kLogError),
                ElementsAre(HasSubstr("ended twice"), HasSubstr("ended twice")));
    m_queue->end(m_queue->Requests().back().ticket, 512);
    EXPECT_EQ(m_platform.Wait(&second.io).bytes, 512);
}

TEST_F(Scripted, AbortEndsWhatHasNotBegunAndLetsTheRestEnd) {
    Make();
    Context running(0, 512);
    Context alsoRunning(512, 512);
    Context waiting(1024, 512);
    Context kept(1536, 512);
    for (Context* each : {&running, &alsoRunning, &waiting, &kept})
        Write(*each);
    ASSERT_EQ(m_queue->Requests().size(), 2U);  // the depth
    Abort(running);
    Abort(waiting);
    const FakePlatform::End end = m_platform.Wait(&waiting.io);
    EXPECT_EQ(end.bytes, -ECANCELED);
    EXPECT_NE(end.thread, std::this_thread::get_id());
    EXPECT_EQ(m_platform.Ends(&running.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().aborted, 2U);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_GT(m_queue->Requests().size(), i);
        m_queue->end(m_queue->Requests()[i].ticket, 512);
    }
    for (Context* each : {&running, &alsoRunning, &kept})
        EXPECT_EQ(m_platform.Wait(&each->io).bytes, 512);
    EXPECT_EQ(m_queue->Requests().size(), 3U);
}

TEST_F(Scripted, IgnoresAnAbortOfAContextThatIsNotOnLoan) {
    Make();
    Context never(0, 512);
    Context ended(0, 512);
    Write(ended);
    m_queue->end(m_queue->Requests().back().ticket, 512);
    Abort(never);
    Abort(ended);
    m_lun->Abort(m_lun->Context(), nullptr);
    m_lun->Stop();  // its threads have ended: nothing can come any more
    EXPECT_EQ(m_platform.Ends(&never.io), 0U);
    EXPECT_EQ(m_platform.Ends(&ended.io), 1U);
    EXPECT_EQ(m_lun->Snapshot().unknownAborts, 3U);
    EXPECT_EQ(m_lun->Snapshot().aborted, 0U);
    EXPECT_EQ(CapturingLogWriter::Installed().Texts(kLogError).size(), 3U);
}

TEST_F(Scripted, StopWaitsForWhatRuns) {
    Make();
    Context running(0, 512);
    Write(running);
    std::thread stopper([&] { m_lun->Stop(); });
    // Stop has begun when newcomers are refused.
    EXPECT_TRUE(Eventually([&] {
        Context late(0, 512);
        Write(late);
        const bool refused = m_platform.Ends(&late.io) == 1;
        if (!refused)
            m_queue->end(m_queue->Requests().back().ticket, 512);
        m_platform.Forget(&late.io);
        return refused;
    }));
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    m_queue->end(m_queue->Requests().front().ticket, 512);
    stopper.join();
    EXPECT_EQ(m_platform.Wait(&running.io).bytes, 512);
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
