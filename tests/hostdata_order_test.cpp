// A file LUN's transfers in their order: the queue ends each request when the test says so.
#include <cerrno>
#include <list>
#include <optional>
#include <random>
#include <thread>

#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

constexpr uint64_t kSize = 64 * 1024;

struct ScriptedQueue : FileQueue {
    const char* Name() const override { return "scripted"; }
    size_t Depth() const override { return 2; }
    void Submit(const FileRequest& request) override {
        seen(request);
        requests.push_back(request);
    }
    void Stop() override {}
    size_t Running(FileRequest::Kind kind) const {
        return std::ranges::count(requests, kind, &FileRequest::kind);
    }

    std::function<void(const FileRequest&)> seen = [](const FileRequest&) {};
    std::vector<FileRequest> requests;
    Ended end;
};

struct Scripted : LunTest {
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
        auto made = std::make_unique<LunData::Parts>(config, platform);
        made->engine = FileEngine::Make(file, durable, made->transfers, maker, error);
        parts = made.get();
        lun = std::make_unique<LunData>(std::move(made));
    }

    ScriptedQueue* queue = nullptr;
    LunData::Parts* parts = nullptr;
    Context stray{0, 512};
};

/// A transfer as the model sees it.
struct Seen {
    Seen(uint64_t offset, bool writes) : context(offset, 1024, {512, 512}), write(writes) {}

    bool Moved() const { return moved == 1024 || last <= 0; }

    Context context;
    Ticket ticket = 0;
    bool write;
    bool aborted = false;
    bool begun = false;
    bool alone = false;      ///< carries its own sync
    int sync = 0;            ///< which one makes it durable, of those that others share
    int failuresBefore = 0;  ///< the failed syncs when it began, and its own
    int64_t moved = 0;
    int64_t last = 1;  ///< how its last request ended; a retry doesn't count
};

// Random traffic, of which every request ends in any order and in any way. A write is reported only
// when it is durable, at the first moment that it is, and -EIO exactly when a sync failed
// meanwhile.
TEST_F(Scripted, EachTransferEndsAsAModelOfTheDiskSays) {
    using Kind = FileRequest::Kind;
    for (const bool durable : {true, false}) {
        Make(durable);
        std::mt19937 random(42);  // NOLINT(cert-msc51-cpp)
        const auto draw = [&](size_t below) { return random() % below; };
        std::list<Seen> all;
        int failures = 0;
        int syncsBegun = 0;
        int syncsEnded = 0;
        bool syncRan = false;    // when the step began
        bool syncAgain = false;  // the one that was interrupted
        uint64_t aborts = 0;
        uint64_t strays = 0;  // ends and aborts of what isn't on loan
        std::optional<Ticket> stale;
        const auto of = [&](const FileRequest& request) {
            const auto* base = static_cast<const char*>(request.iov->iov_base);
            return std::ranges::find_if(all, [&](const Seen& each) {
                return base == each.context.bytes.data() + each.moved;
            });
        };
        queue->seen = [&](const FileRequest& request) {
            if (request.kind == Kind::Sync) {
                EXPECT_EQ(queue->Running(Kind::Sync), 0U);
                syncsBegun += std::exchange(syncAgain, false) ? 0 : 1;
                return;
            }
            const auto seen = of(request);
            ASSERT_NE(seen, all.end());
            if (!seen->begun) {
                EXPECT_TRUE(std::all_of(all.begin(), seen, std::mem_fn(&Seen::begun)));
                seen->begun = true;
                seen->ticket = request.ticket;
                seen->failuresBefore = failures;
                seen->alone =
                    durable && seen->write && queue->Running(Kind::Write) == 0 && !syncRan;
            }
            EXPECT_EQ(request.kind, seen->write ? Kind::Write : Kind::Read);
            EXPECT_EQ(request.flags, seen->alone ? RWF_DSYNC : 0);
            EXPECT_EQ(request.offset, seen->context.io.offset + seen->moved);
            EXPECT_EQ(request.count, seen->moved < 512 ? 2 : 1);
        };
        for (int step = 0; step < 20'000 || !all.empty(); ++step) {
            syncRan = queue->Running(Kind::Sync) > 0;
            const size_t choice = draw(10);
            if (choice < 4 && step < 20'000 && all.size() < 8) {
                Seen& fresh = all.emplace_back(draw(kSize - 1024), draw(4) > 0);
                Begin(fresh.context, fresh.write);
            } else if (choice == 4 && !all.empty()) {
                Seen& chosen = *std::next(all.begin(), draw(all.size()));
                chosen.aborted = true;
                Abort(chosen.context);
                ++aborts;
            } else if (choice == 5 && stale) {
                queue->end(*stale, draw(2) == 0 ? 1024 : -EIO);  // its place may be another's
                Abort(stray);
                ++strays;
            } else if (!queue->requests.empty()) {
                const auto at = queue->requests.begin() + draw(queue->requests.size());
                const FileRequest request = *at;
                queue->requests.erase(at);
                int64_t result = -std::vector{0, EIO, EINTR, ECANCELED}[draw(4)];
                const bool again = result == -EINTR || result == -ECANCELED;
                if (request.kind == Kind::Sync) {
                    failures += result == -EIO ? 1 : 0;
                    syncsEnded += again ? 0 : 1;
                    syncAgain = again;
                } else {
                    const auto seen = of(request);
                    if (draw(3) > 0)
                        result = 1 + draw(1024 - seen->moved);
                    seen->moved += std::max<int64_t>(result, 0);
                    seen->last = result > 0 || !again ? result : seen->last;
                    const bool ownFailure = seen->alone && result == -EIO;
                    failures += ownFailure ? 1 : 0;
                    seen->failuresBefore += ownFailure ? 1 : 0;
                    if (durable && seen->write && !seen->alone && seen->moved > 0)
                        seen->sync = syncsBegun + 1;
                }
                queue->end(request.ticket, result);
            }
            size_t unmoved = 0;
            for (auto each = all.begin(); each != all.end();) {
                const bool over =
                    each->begun ? each->Moved() && each->sync <= syncsEnded : each->aborted;
                unmoved += over || each->Moved() ? 0 : 1;
                if (over) {
                    const bool lost =
                        (each->alone || each->sync > 0) && each->failuresBefore != failures;
                    ASSERT_EQ(Result(each->context), !each->begun      ? -ECANCELED
                                                     : lost            ? -EIO
                                                     : each->moved > 0 ? each->moved
                                                                       : each->last);
                    stale = each->begun ? each->ticket : stale;
                    each = all.erase(each);
                } else {
                    ASSERT_EQ(Ends(each->context), 0U);
                    ASSERT_TRUE(!each->Moved() || queue->Running(Kind::Sync) == 1);
                    ++each;
                }
            }
            ASSERT_EQ(queue->Running(Kind::Read) + queue->Running(Kind::Write),
                      std::min<size_t>(unmoved, 2));
            ASSERT_FALSE(HasFailure());
        }
        const LunStatistics counted = lun->Snapshot();
        EXPECT_THAT((std::vector{counted.aborted, counted.ignoredCompletions, counted.unknownAborts,
                                 counted.onLoan}),
                    ElementsAre(aborts, strays, strays, 0));
        EXPECT_EQ(CapturingLogWriter::Installed().Texts(kLogError).size(), 2 * strays);
    }
}

TEST_F(Scripted, StopWaitsForWhatRunsAndRefusesTheRest) {
    Make();
    Context a{0, 512}, b{512, 512}, c{1024, 512}, d{1536, 512};
    // The device may ask a transfer back between Read's first step and the engine's.
    Transfer* const early = parts->transfers.Open(&d.io, false, kSize, kSize);
    Abort(d);
    parts->engine->Start(*early);
    EXPECT_EQ(Result(d), -ECANCELED);
    EXPECT_TRUE(queue->requests.empty());
    for (Context* each : {&a, &b, &c})
        Begin(*each, false);
    std::thread stopper([&] { lun->Stop(); });
    EXPECT_EQ(Result(c), -ECANCELED) << "beyond the depth";
    Begin(d, false);
    EXPECT_EQ(Result(d), -ESHUTDOWN);
    EXPECT_EQ(lun->Snapshot().onLoan, 2U);
    for (const FileRequest& request : std::vector(queue->requests))
        queue->end(request.ticket, 512);
    stopper.join();
    EXPECT_EQ(Result(a) + Result(b), 1024);
}
