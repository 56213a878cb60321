// A file LUN's transfers in their order: the queue ends each request when the test says so.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "host/data/FileEngine.h"
#include "host/data/LunData.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::Eventually;
using hostdata_test::FakePlatform;
using hostdata_test::MakeOver;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSize = 64 * 1024;

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
    /// Begin a transfer. Return: the ticket of the queue's last request, the transfer's own when
    /// it was within the depth.
    Ticket Write(Context& context) {
        m_lun->Write(m_lun->Context(), &context.io, 0);
        return m_queue->Requests().back().ticket;
    }
    Ticket Read(Context& context) {
        m_lun->Read(m_lun->Context(), &context.io, 0);
        return m_queue->Requests().back().ticket;
    }
    size_t Syncs() {
        return std::ranges::count(m_queue->Requests(), FileRequest::Kind::Sync, &FileRequest::kind);
    }
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

TEST_F(Scripted, AWriteIsOnTheDiskWhenItEndsUnlessATestSwitchedThatOff) {
    for (const bool durable : {true, false}) {
        FaultPlan plan;
        plan.durable = durable;
        Make(plan);
        Context alone(0, 512);
        Context second(512, 512);
        Context read(0, 512);
        const Ticket aloneTicket = Write(alone);
        EXPECT_EQ(m_queue->Requests().back().flags, durable ? RWF_DSYNC : 0);
        m_queue->end(Write(second), 512);
        EXPECT_EQ(m_queue->Requests()[1].flags, 0);
        EXPECT_EQ(m_platform.Ends(&second.io), durable ? 0U : 1U);
        m_queue->end(Read(read), 512);  // waits for no sync
        EXPECT_EQ(m_platform.Ends(&read.io), 1U);
        m_queue->end(aloneTicket, 512);  // has its own
        EXPECT_EQ(m_platform.Ends(&alone.io), 1U);
        EXPECT_EQ(Syncs(), durable ? 1U : 0U);
        if (durable) {
            m_queue->end(kSyncTicket, -EINTR);  // begun again
            EXPECT_EQ(Syncs(), 2U);
            EXPECT_EQ(m_platform.Ends(&second.io), 0U);
            m_queue->end(kSyncTicket, 0);
            Context next(0, 512);
            m_queue->end(Write(next), 512);
            EXPECT_EQ(m_queue->Requests().back().flags, RWF_DSYNC);  // alone again
        }
        EXPECT_EQ(m_platform.Wait(&second.io).bytes, 512);
        m_lun.reset();
        for (Context* each : {&alone, &second, &read})
            m_platform.Forget(&each->io);
    }
}

TEST_F(Scripted, OneSyncServesAllThatGatheredWhileTheOneBeforeRan) {
    Make();
    Context alone(0, 512);
    Context first(512, 512);
    Context second(1024, 512);
    Context third(1536, 512);
    const Ticket aloneTicket = Write(alone);
    m_queue->end(Write(first), 512);
    m_queue->end(aloneTicket, 512);
    for (Context* each : {&second, &third}) {
        m_queue->end(Write(*each), 512);
        EXPECT_EQ(m_queue->Requests().back().flags, 0);  // not alone while a sync runs
    }
    // What fails without a sync fails alone.
    Context failing(2048, 512);
    m_queue->end(Read(failing), -EIO);
    EXPECT_EQ(m_platform.Wait(&failing.io).bytes, -EIO);
    EXPECT_EQ(Syncs(), 1U);
    m_queue->end(kSyncTicket, 0);
    // The first sync may have begun before the others' bytes were there.
    EXPECT_THAT((std::vector{m_platform.Ends(&first.io), m_platform.Ends(&second.io),
                             m_platform.Ends(&third.io), Syncs()}),
                ElementsAre(1, 0, 0, 2));
    m_queue->end(kSyncTicket, 0);
    EXPECT_EQ(m_platform.Wait(&second.io).bytes, 512);
    EXPECT_EQ(m_platform.Wait(&third.io).bytes, 512);
    EXPECT_EQ(Syncs(), 2U);
}

TEST_F(Scripted, AFailedSyncFailsWhatHadBegunAndNothingLater) {
    for (const bool ownSyncFails : {false, true}) {
        Make();
        Context alone(0, 512);
        Context synced(512, 512);
        Context gathered(1024, 512);
        Context moving(1536, 512);
        Context later(2048, 512);
        const Ticket aloneTicket = Write(alone);
        m_queue->end(Write(synced), 512);
        m_queue->end(Write(gathered), 512);
        const Ticket movingTicket = Write(moving);
        if (ownSyncFails) {
            m_queue->end(aloneTicket, 100);
            m_queue->end(aloneTicket, -EIO);
            EXPECT_EQ(m_platform.Wait(&alone.io).bytes, 100);
            m_queue->end(kSyncTicket, 0);
        } else {
            m_queue->end(kSyncTicket, -EIO);
            m_queue->end(aloneTicket, 512);
            EXPECT_EQ(m_platform.Wait(&alone.io).bytes, -EIO);
        }
        EXPECT_EQ(m_platform.Wait(&synced.io).bytes, -EIO);
        m_queue->end(movingTicket, 512);
        m_queue->end(Write(later), 512);
        m_queue->end(kSyncTicket, 0);
        EXPECT_EQ(m_platform.Wait(&gathered.io).bytes, -EIO);
        m_queue->end(kSyncTicket, 0);
        EXPECT_EQ(m_platform.Wait(&moving.io).bytes, -EIO);
        EXPECT_EQ(m_platform.Wait(&later.io).bytes, 512);
        m_lun.reset();
        for (Context* each : {&alone, &synced, &gathered, &moving, &later})
            m_platform.Forget(&each->io);
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
        for (const bool write : {false, true}) {
            Context context(4096, 1024, {512, 512});
            const size_t first = m_queue->Requests().size();
            if (write)
                Write(context);
            else
                Read(context);
            uint64_t done = 0;
            for (const int64_t result : each.results) {
                ASSERT_EQ(m_platform.Ends(&context.io), 0U);
                const FileRequest request = m_queue->Requests().back();
                EXPECT_EQ(request.kind == FileRequest::Kind::Write, write);
                EXPECT_EQ(request.flags, write ? RWF_DSYNC : 0);
                EXPECT_EQ(request.offset, 4096 + done);
                EXPECT_EQ(request.count, done < 512 ? 2 : 1);
                EXPECT_EQ(request.iov->iov_base, context.bytes.data() + done);
                m_queue->end(request.ticket, result);
                done += result > 0 ? result : 0;
            }
            EXPECT_EQ(m_queue->Requests().size(), first + each.results.size());
            EXPECT_EQ(m_platform.Wait(&context.io).bytes, each.reported);
            m_platform.Forget(&context.io);
        }
    }
}

TEST_F(Scripted, EndsATransferOnceEvenWhenItsPlaceServesAnother) {
    Make();
    Context first(0, 512);
    Read(first);
    const Ticket ticket = m_queue->Requests().back().ticket;
    m_queue->end(ticket, 512);
    m_queue->end(ticket, 512);
    Context second(512, 512);
    Read(second);
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
        Read(*each);
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
    Read(ended);
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

TEST_F(Scripted, WhatHasNothingToMoveOrWasAbortedBeforeItsBeginAsksTheKernelNothing) {
    Make();
    Context first(0, 512);
    const Ticket ticket = Read(first);
    for (const uint64_t offset : {kSize, UINT64_MAX - 100}) {
        Context beyond(offset, 512);
        Read(beyond);
        EXPECT_EQ(m_platform.Wait(&beyond.io).bytes, 0);
        m_platform.Forget(&beyond.io);
    }
    EXPECT_EQ(m_queue->Requests().size(), 1U);
    m_queue->end(ticket, 512);
    // The device may ask a transfer back between Read's first step and the engine's.
    Transfers transfers("lun", m_platform);
    const auto maker = [](int, FileQueue::Ended, std::string&) {
        return std::make_unique<ScriptedQueue>();
    };
    std::string error;
    BackingFile file;
    const auto engine = FileEngine::Make(file, true, transfers, maker, error);
    Context asked(0, 512);
    Transfer* const transfer = transfers.Open(&asked.io, false, kSize, kSize);
    transfers.MarkAborted(&asked.io);
    engine->Start(*transfer);
    EXPECT_EQ(m_platform.Ends(&asked.io), 1U);
    EXPECT_EQ(m_platform.Wait(&asked.io).bytes, -ECANCELED);
}

TEST_F(Scripted, StopWaitsForWhatRuns) {
    Make();
    Context running(0, 512);
    Read(running);
    std::thread stopper([&] { m_lun->Stop(); });
    // Stop has begun when newcomers are refused.
    EXPECT_TRUE(Eventually([&] {
        Context late(0, 512);
        Read(late);
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

}  // namespace
}  // namespace moscsi::data
