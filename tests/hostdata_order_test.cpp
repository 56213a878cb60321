// A file LUN's transfers in their order: the queue ends each request when the test says so.
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
using testing::AnyOf;
using testing::ElementsAre;
using testing::HasSubstr;

constexpr uint64_t kSize = 64 * 1024;

struct ScriptedQueue : FileQueue {
    const char* Name() const override { return "scripted"; }
    size_t Depth() const override { return 2; }
    void Submit(const FileRequest& request) override { requests.push_back(request); }
    void Stop() override {}

    std::vector<FileRequest> requests;
    Ended end;
};

struct Scripted : hostdata_test::LunTest {
    void Make(bool durable = true) {
        CapturingLogWriter::Installed().Reset(kLogError);
        lun.reset();
        const auto maker = [this](int, FileQueue::Ended ended, std::string&) {
            auto made = std::make_unique<ScriptedQueue>();
            made->end = std::move(ended);
            queue = made.get();
            return made;
        };
        std::string error;
        BackingFile file;
        ASSERT_TRUE(file.Open(path, kSize, error)) << error;
        const LunDataConfig config{"lun", Backing::File, path, kSize, {}, {}};
        auto parts = std::make_unique<LunData::Parts>(config, platform);
        transfers = &parts->transfers;
        parts->engine = FileEngine::Make(file, durable, *transfers, maker, error);
        engine = parts->engine.get();
        lun = std::make_unique<LunData>(std::move(parts));
    }
    /// Begin a transfer. Return: the ticket of the queue's last request, the transfer's own when
    /// it was within the depth.
    Ticket Write(Context& context) {
        Begin(context, true);
        return Last().ticket;
    }
    Ticket Read(Context& context) {
        Begin(context, false);
        return Last().ticket;
    }
    const FileRequest& Last() const { return queue->requests.back(); }
    void End(Ticket ticket, int64_t result) { queue->end(ticket, result); }
    size_t Syncs() const {
        return std::ranges::count(queue->requests, FileRequest::Kind::Sync, &FileRequest::kind);
    }

    ScriptedQueue* queue = nullptr;
    Transfers* transfers = nullptr;
    DataEngine* engine = nullptr;
    Context a{0, 512}, b{512, 512}, c{1024, 512}, d{1536, 512};
};

TEST_F(Scripted, OneSyncServesAllThatGatheredWhileTheOneBeforeRan) {
    Make();
    const Ticket alone = Write(a);
    EXPECT_EQ(Last().flags, RWF_DSYNC);
    for (Context* each : {&b, &c, &d}) {
        const Ticket ticket = Write(*each);
        EXPECT_EQ(Last().flags, 0) << "not alone, or a sync runs";
        End(ticket, 512);
        EXPECT_EQ(Ends(*each), 0U);
        if (each == &b) {
            End(alone, 512);
            EXPECT_EQ(Result(a), 512) << "has its own";
        }
    }
    End(Read(a), -EIO);
    EXPECT_EQ(Result(a), -EIO) << "waits for no sync, and fails alone";
    EXPECT_EQ(Syncs(), 1U);
    End(kSyncTicket, -EINTR);  // begun again
    EXPECT_EQ(Syncs(), 2U);
    End(kSyncTicket, 0);
    // The first sync may have begun before the others' bytes were there.
    EXPECT_THAT((std::vector{Ends(b), Ends(c), Ends(d), Syncs()}), ElementsAre(1, 0, 0, 3));
    End(kSyncTicket, 0);
    EXPECT_EQ(Result(b) + Result(c) + Result(d), 3 * 512);
    End(Write(a), 512);
    EXPECT_EQ(Last().flags, RWF_DSYNC) << "alone again";

    Make(false);  // as a test may switch it
    for (Context* each : {&b, &c})
        Write(*each);
    EXPECT_EQ(Last().flags, 0);
    for (const FileRequest& request : std::vector(queue->requests))
        End(request.ticket, 512);
    EXPECT_EQ(Result(b) + Result(c), 2 * 512);
    EXPECT_EQ(Syncs(), 0U);
}

TEST_F(Scripted, AFailedSyncFailsWhatHadBegunAndNothingLater) {
    for (const bool ownSyncFails : {false, true}) {
        Make();
        Context later(2048, 512);
        const Ticket alone = Write(a);
        End(Write(b), 512);
        End(Write(c), 512);
        const Ticket moving = Write(d);
        if (ownSyncFails) {
            End(alone, 100);
            End(alone, -EIO);
            End(kSyncTicket, 0);
        } else {
            End(kSyncTicket, -EIO);
            End(alone, 512);
        }
        EXPECT_EQ(Result(a), ownSyncFails ? 100 : -EIO);
        EXPECT_EQ(Result(b), -EIO);
        End(moving, 512);
        End(Write(later), 512);
        End(kSyncTicket, 0);
        EXPECT_EQ(Result(c), -EIO) << "gathered";
        End(kSyncTicket, 0);
        EXPECT_EQ(Result(d), -EIO) << "moved while it failed";
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
            queue->requests.clear();
            Begin(context, write);
            uint64_t done = 0;
            for (const int64_t result : results) {
                ASSERT_EQ(Ends(context), 0U);
                const FileRequest request = Last();
                EXPECT_EQ(request.kind == FileRequest::Kind::Write, write);
                EXPECT_EQ(request.flags, write ? RWF_DSYNC : 0);
                EXPECT_EQ(request.offset, 4096 + done);
                EXPECT_EQ(request.count, done < 512 ? 2 : 1);
                EXPECT_EQ(request.iov->iov_base, context.bytes.data() + done);
                End(request.ticket, result);
                done += std::max<int64_t>(result, 0);
            }
            EXPECT_EQ(queue->requests.size(), results.size());
            EXPECT_EQ(Result(context), reported);
        }
    }
}

TEST_F(Scripted, WhatIsNotOnLoanIsLoggedCountedAndLeftAlone) {
    Make();
    const Ticket ticket = Read(a);
    End(ticket, 512);
    End(ticket, 512);
    Read(b);  // in the same place
    End(ticket, -EIO);
    Abort(a);
    Abort(c);
    lun->Abort(lun->Context(), nullptr);
    EXPECT_THAT(CapturingLogWriter::Installed().Texts(kLogError),
                ElementsAre(HasSubstr("ended twice"), HasSubstr("ended twice"),
                            HasSubstr("on loan"), HasSubstr("on loan"), HasSubstr("on loan")));
    const LunStatistics seen = lun->Snapshot();
    EXPECT_THAT(
        (std::vector{seen.ignoredCompletions, seen.unknownAborts, seen.aborted, seen.onLoan}),
        ElementsAre(2, 3, 0, 1));
    End(Last().ticket, 512);
    EXPECT_EQ(Result(b), 512);
    EXPECT_EQ(Result(a), 512);
    lun->Stop();  // its threads have ended: nothing can come any more
    EXPECT_EQ(Ends(a) + Ends(b) + Ends(c), 0U);
}

TEST_F(Scripted, AbortEndsWhatHasNotBegunAndLetsTheRestEnd) {
    Make();
    for (Context* each : {&a, &b, &c, &d})
        Read(*each);
    ASSERT_EQ(queue->requests.size(), 2U) << "the depth";
    Abort(a);
    Abort(c);
    ExpectCancelled(c);
    EXPECT_EQ(Ends(a), 0U);
    EXPECT_EQ(lun->Snapshot().aborted, 2U);
    for (size_t i = 0; i < 3; ++i)
        End(queue->requests.at(i).ticket, 512);
    for (Context* each : {&a, &b, &d})
        EXPECT_EQ(Result(*each), 512);
    EXPECT_EQ(queue->requests.size(), 3U);
}

TEST_F(Scripted, WhatHasNothingToMoveOrWasAbortedBeforeItsBeginAsksTheKernelNothing) {
    Make();
    End(Read(a), 512);
    for (const uint64_t offset : {kSize, UINT64_MAX - 100}) {
        Context beyond(offset, 512);
        Read(beyond);
        EXPECT_EQ(Result(beyond), 0);
    }
    // The device may ask a transfer back between Read's first step and the engine's.
    Transfer* const transfer = transfers->Open(&b.io, false, kSize, kSize);
    transfers->MarkAborted(&b.io);
    engine->Start(*transfer);
    EXPECT_EQ(Result(b), -ECANCELED);
    EXPECT_EQ(queue->requests.size(), 1U);
}

TEST_F(Scripted, StopWaitsForWhatRuns) {
    Make();
    const Ticket running = Read(a);
    std::thread stopper([&] { lun->Stop(); });
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    long late = 512;
    while (late == 512) {  // until Stop has begun
        ASSERT_LT(std::chrono::steady_clock::now(), deadline);
        if (Read(b) != running)
            End(Last().ticket, 512);
        queue->requests.resize(1);
        late = Result(b);
    }
    // Refused, or asked back when it came just before Stop.
    EXPECT_THAT(late, AnyOf(-ESHUTDOWN, -ECANCELED));
    EXPECT_EQ(lun->Snapshot().onLoan, 1U);
    End(running, 512);
    stopper.join();
    EXPECT_EQ(Result(a), 512);
}

}  // namespace
}  // namespace moscsi::data
