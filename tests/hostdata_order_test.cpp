// A file LUN's transfers in their order: the queue ends each request when the test says so.
#include <gmock/gmock.h>

#include <cerrno>
#include <chrono>
#include <memory>

#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSize = 64 * 1024;

class ScriptedQueue : public FileQueue {
  public:
    const char* Name() const override { return "scripted"; }
    size_t Depth() const override { return 2; }
    void Submit(const FileRequest& request) override { requests.push_back(request); }
    void Stop() override {}

    std::vector<FileRequest> requests;
    Ended end;
};

class Scripted : public testing::Test {
  protected:
    void Make(bool durable = true) {
        CapturingLogWriter::Installed().Reset(kLogError);
        m_lun.reset();
        const auto maker = [this](int, FileQueue::Ended ended, std::string&) {
            auto queue = std::make_unique<ScriptedQueue>();
            queue->end = std::move(ended);
            m_queue = queue.get();
            return queue;
        };
        const LunDataConfig config{"lun", Backing::File, m_directory.File("data"), kSize, {}, {}};
        std::string error;
        BackingFile file;
        auto parts = std::make_unique<LunData::Parts>(config, m_platform);
        m_transfers = &parts->transfers;
        ASSERT_TRUE(file.Open(config.path, kSize, error)) << error;
        parts->engine = FileEngine::Make(file, durable, parts->transfers, maker, error);
        m_engine = parts->engine.get();
        m_lun = std::make_unique<LunData>(std::move(parts));
    }
    /// Begin a transfer. Return: the ticket of the queue's last request, the transfer's own when
    /// it was within the depth.
    Ticket Write(Context& context) {
        m_lun->Write(m_lun->Context(), &context.io, 0);
        return Last().ticket;
    }
    Ticket Read(Context& context) {
        m_lun->Read(m_lun->Context(), &context.io, 0);
        return Last().ticket;
    }
    const FileRequest& Last() const { return m_queue->requests.back(); }
    size_t Syncs() const {
        return std::ranges::count(m_queue->requests, FileRequest::Kind::Sync, &FileRequest::kind);
    }
    long Result(Context& context) { return m_platform.Take(&context.io).bytes; }
    void Abort(Context& context) {
        // As the device does it: its mutex held. IODone from inside would never return.
        const MutexGuard device(m_platform.deviceMutex);
        m_lun->Abort(m_lun->Context(), &context.io);
    }

    Directory m_directory;
    FakePlatform m_platform;
    ScriptedQueue* m_queue = nullptr;
    Transfers* m_transfers = nullptr;
    DataEngine* m_engine = nullptr;
    std::unique_ptr<LunData> m_lun;
    Context m_alone{0, 512}, m_second{512, 512}, m_third{1024, 512}, m_fourth{1536, 512};
};

TEST_F(Scripted, AWriteIsOnTheDiskWhenItEndsUnlessATestSwitchedThatOff) {
    for (const bool durable : {true, false}) {
        Make(durable);
        const Ticket alone = Write(m_alone);
        EXPECT_EQ(Last().flags, durable ? RWF_DSYNC : 0);
        m_queue->end(Write(m_second), 512);
        EXPECT_EQ(m_queue->requests[1].flags, 0);
        EXPECT_EQ(m_platform.Ends(&m_second.io), durable ? 0U : 1U);
        m_queue->end(Read(m_third), 512);
        EXPECT_EQ(m_platform.Ends(&m_third.io), 1U) << "waits for no sync";
        m_queue->end(alone, 512);
        EXPECT_EQ(m_platform.Ends(&m_alone.io), 1U) << "has its own";
        EXPECT_EQ(Syncs(), durable ? 1U : 0U);
        if (durable) {
            m_queue->end(kSyncTicket, -EINTR);  // begun again
            EXPECT_EQ(Syncs(), 2U);
            EXPECT_EQ(m_platform.Ends(&m_second.io), 0U);
            m_queue->end(kSyncTicket, 0);
            m_queue->end(Write(m_fourth), 512);
            EXPECT_EQ(Last().flags, RWF_DSYNC) << "alone again";
        }
        for (Context* each : {&m_alone, &m_second, &m_third})
            EXPECT_EQ(Result(*each), 512);
    }
}

TEST_F(Scripted, OneSyncServesAllThatGatheredWhileTheOneBeforeRan) {
    Make();
    const Ticket alone = Write(m_alone);
    m_queue->end(Write(m_second), 512);
    m_queue->end(alone, 512);
    for (Context* each : {&m_third, &m_fourth}) {
        m_queue->end(Write(*each), 512);
        EXPECT_EQ(Last().flags, 0) << "not alone while a sync runs";
    }
    // What fails without a sync fails alone.
    m_queue->end(Read(m_alone), -EIO);
    EXPECT_EQ(Result(m_alone), 512);
    EXPECT_EQ(Result(m_alone), -EIO);
    EXPECT_EQ(Syncs(), 1U);
    m_queue->end(kSyncTicket, 0);
    // The first sync may have begun before the others' bytes were there.
    EXPECT_THAT((std::vector{m_platform.Ends(&m_second.io), m_platform.Ends(&m_third.io),
                             m_platform.Ends(&m_fourth.io), Syncs()}),
                ElementsAre(1, 0, 0, 2));
    m_queue->end(kSyncTicket, 0);
    EXPECT_EQ(Result(m_third) + Result(m_fourth), 1024);
    EXPECT_EQ(Syncs(), 2U);
}

TEST_F(Scripted, AFailedSyncFailsWhatHadBegunAndNothingLater) {
    for (const bool ownSyncFails : {false, true}) {
        Make();
        Context later(2048, 512);
        const Ticket alone = Write(m_alone);
        m_queue->end(Write(m_second), 512);
        m_queue->end(Write(m_third), 512);
        const Ticket moving = Write(m_fourth);
        if (ownSyncFails) {
            m_queue->end(alone, 100);
            m_queue->end(alone, -EIO);
            m_queue->end(kSyncTicket, 0);
        } else {
            m_queue->end(kSyncTicket, -EIO);
            m_queue->end(alone, 512);
        }
        EXPECT_EQ(Result(m_alone), ownSyncFails ? 100 : -EIO);
        EXPECT_EQ(Result(m_second), -EIO);
        m_queue->end(moving, 512);
        m_queue->end(Write(later), 512);
        m_queue->end(kSyncTicket, 0);
        EXPECT_EQ(Result(m_third), -EIO) << "gathered";
        m_queue->end(kSyncTicket, 0);
        EXPECT_EQ(Result(m_fourth), -EIO) << "moved while it failed";
        EXPECT_EQ(Result(later), 512);
    }
}

TEST_F(Scripted, ReportsTheBytesThatWereMovedBeforeAFailureOrTheEnd) {
    const std::vector<std::pair<std::vector<int64_t>, long>> cases = {{{1024}, 1024},
                                                                      {{-EIO}, -EIO},
                                                                      {{0}, 0},
                                                                      {{100, -EIO}, 100},
                                                                      {{600, 0}, 600},
                                                                      {{-EINTR, 1024}, 1024},
                                                                      {{1, 1, 1022}, 1024},
                                                                      {{-ECANCELED, 1024}, 1024}};
    Make();
    for (const auto& [results, reported] : cases) {
        for (const bool write : {false, true}) {
            Context context(4096, 1024, {512, 512});
            const size_t first = m_queue->requests.size();
            write ? Write(context) : Read(context);
            uint64_t done = 0;
            for (const int64_t result : results) {
                ASSERT_EQ(m_platform.Ends(&context.io), 0U);
                const FileRequest request = Last();
                EXPECT_EQ(request.kind == FileRequest::Kind::Write, write);
                EXPECT_EQ(request.flags, write ? RWF_DSYNC : 0);
                EXPECT_EQ(request.offset, 4096 + done);
                EXPECT_EQ(request.count, done < 512 ? 2 : 1);
                EXPECT_EQ(request.iov->iov_base, context.bytes.data() + done);
                m_queue->end(request.ticket, result);
                done += result > 0 ? result : 0;
            }
            EXPECT_EQ(m_queue->requests.size(), first + results.size());
            EXPECT_EQ(Result(context), reported);
        }
    }
}

TEST_F(Scripted, EndsATransferOnceEvenWhenItsPlaceServesAnother) {
    Make();
    const Ticket ticket = Read(m_alone);
    m_queue->end(ticket, 512);
    m_queue->end(ticket, 512);
    Read(m_second);
    m_queue->end(ticket, -EIO);
    EXPECT_EQ(m_platform.Ends(&m_alone.io), 1U);
    EXPECT_EQ(m_platform.Ends(&m_second.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().ignoredCompletions, 2U);
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    EXPECT_THAT(CapturingLogWriter::Installed().Texts(kLogError),
                ElementsAre(HasSubstr("ended twice"), HasSubstr("ended twice")));
    m_queue->end(Last().ticket, 512);
    EXPECT_EQ(Result(m_second), 512);
}

TEST_F(Scripted, AbortEndsWhatHasNotBegunAndLetsTheRestEnd) {
    Make();
    for (Context* each : {&m_alone, &m_second, &m_third, &m_fourth})
        Read(*each);
    ASSERT_EQ(m_queue->requests.size(), 2U) << "the depth";
    Abort(m_alone);
    Abort(m_third);
    const FakePlatform::End end = m_platform.Take(&m_third.io);
    EXPECT_EQ(end.bytes, -ECANCELED);
    EXPECT_NE(end.thread, std::this_thread::get_id());
    EXPECT_EQ(m_platform.Ends(&m_alone.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().aborted, 2U);
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_GT(m_queue->requests.size(), i);
        m_queue->end(m_queue->requests[i].ticket, 512);
    }
    for (Context* each : {&m_alone, &m_second, &m_fourth})
        EXPECT_EQ(Result(*each), 512);
    EXPECT_EQ(m_queue->requests.size(), 3U);
}

TEST_F(Scripted, IgnoresAnAbortOfAContextThatIsNotOnLoan) {
    Make();
    m_queue->end(Read(m_second), 512);
    Abort(m_alone);
    Abort(m_second);
    m_lun->Abort(m_lun->Context(), nullptr);
    m_lun->Stop();  // its threads have ended: nothing can come any more
    EXPECT_EQ(m_platform.Ends(&m_alone.io), 0U);
    EXPECT_EQ(m_platform.Ends(&m_second.io), 1U);
    EXPECT_EQ(m_lun->Snapshot().unknownAborts, 3U);
    EXPECT_EQ(m_lun->Snapshot().aborted, 0U);
    EXPECT_EQ(CapturingLogWriter::Installed().Texts(kLogError).size(), 3U);
}

TEST_F(Scripted, WhatHasNothingToMoveOrWasAbortedBeforeItsBeginAsksTheKernelNothing) {
    Make();
    m_queue->end(Read(m_alone), 512);
    for (const uint64_t offset : {kSize, UINT64_MAX - 100}) {
        Context beyond(offset, 512);
        Read(beyond);
        EXPECT_EQ(Result(beyond), 0);
    }
    // The device may ask a transfer back between Read's first step and the engine's.
    Transfer* const transfer = m_transfers->Open(&m_second.io, false, kSize, kSize);
    m_transfers->MarkAborted(&m_second.io);
    m_engine->Start(*transfer);
    EXPECT_EQ(m_platform.Ends(&m_second.io), 1U);
    EXPECT_EQ(Result(m_second), -ECANCELED);
    EXPECT_EQ(m_queue->requests.size(), 1U);
}

TEST_F(Scripted, StopWaitsForWhatRuns) {
    Make();
    const Ticket running = Read(m_alone);
    std::thread stopper([&] { m_lun->Stop(); });
    // Stop has begun when newcomers are refused.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (Read(m_second) != running) {
        m_queue->end(Last().ticket, 512);
        EXPECT_EQ(Result(m_second), 512);
        m_queue->requests.resize(1);
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
    }
    // Refused, or asked back when it came just before Stop.
    EXPECT_THAT(Result(m_second), testing::AnyOf(-ESHUTDOWN, -ECANCELED));
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    m_queue->end(running, 512);
    stopper.join();
    EXPECT_EQ(Result(m_alone), 512);
}

}  // namespace
}  // namespace moscsi::data
