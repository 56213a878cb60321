// A file LUN's transfers in their order: the queue ends each request when the test says so.
#include <array>
#include <cerrno>
#include <semaphore>
#include <sstream>
#include <thread>

#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "tests/support/HostData.h"

constexpr uint64_t kSize = 64 * 1024;

struct ScriptedQueue : FileQueue {
    const char* Name() const override { return "scripted"; }
    size_t Depth() const override { return 2; }
    void Submit(const FileRequest& request) override { submitted(request); }
    void Stop() override {}

    std::function<void(const FileRequest&)> submitted;
    Ended end;
};

struct Scripted : LunTest {
    void Make(bool durable = true, const FaultPlan& faults = {}, int timeOutMs = 0) {
        const auto maker = [this](int, FileQueue::Ended ended, std::string&) {
            auto made = std::make_unique<ScriptedQueue>();
            made->submitted = [this](const FileRequest& request) { Submitted(request); };
            made->end = std::move(ended);
            queue = made.get();
            return made;
        };
        lun.reset();
        trace.clear();
        {
            const MutexGuard guard(platform.mutex);
            begun.clear();
        }
        std::string error;
        BackingFile file;
        Provide(kSize);
        ASSERT_TRUE(file.Open(path, kSize, error)) << error;
        LunDataConfig config{"lun", Backing::File, path, kSize, faults, {}};
        config.commandTimeOut = std::chrono::milliseconds(timeOutMs);
        auto made = std::make_unique<LunData::Parts>(config, platform);
        made->engine = FileEngine::Make(file, durable, made->transfers, maker, error);
        parts = made.get();
        lun = std::make_unique<LunData>(std::move(made));
    }
    void Submitted(const FileRequest& request) {
        const MutexGuard guard(platform.mutex);
        if (request.kind == FileRequest::Kind::Sync) {
            trace += " S";
            tickets['S'] = request.ticket;
            return;
        }
        const auto* const bytes = static_cast<const char*>(request.iov->iov_base);
        size_t index = 0;
        while (bytes < all.at(index).bytes.data() || bytes >= all.at(index).bytes.data() + 512)
            ++index;
        const uint64_t moved = bytes - all[index].bytes.data();
        EXPECT_EQ(request.offset, all[index].io.offset + moved);
        EXPECT_EQ(request.count, moved < 256 ? 2 : 1);
        const bool write = request.kind == FileRequest::Kind::Write;
        (std::this_thread::get_id() == tester ? trace : begun[index]) +=
            std::string(" ") +
            (!write                       ? 'r'
             : request.flags == RWF_DSYNC ? 'D'
                                          : 'w') +
            (request.mayBlock ? "!" : "") + std::to_string(index) +
            (moved == 0 ? "" : "+" + std::to_string(moved));
        tickets[static_cast<char>('0' + index)] = request.ticket;
        platform.ended.notify_all();
    }
    /// Waits until each of the named has been begun by another thread, or has ended.
    void Await(const std::string& names) {
        const MutexGuard guard(platform.mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        for (const char name : names)
            while (!begun.contains(name - '0') && platform.ends.count(&all[name - '0'].io) == 0)
                if (platform.ended.wait_until(platform.mutex, deadline) == std::cv_status::timeout)
                    throw std::runtime_error(trace + ": nothing comes of " + name);
    }
    /// Notes what other threads have begun when none does anything any more.
    void Rest() {
        AwaitSleep();
        const MutexGuard guard(platform.mutex);
        for (const auto& [index, text] : std::exchange(begun, {}))
            trace += text;
    }
    void Play(const std::string& script) {
        std::istringstream tokens(script);
        for (std::string token; tokens >> token;) {
            if (token[1] == '=') {
                queue->end(tickets[token[0]], std::stol(token.substr(2)));
            } else if (token == "." || token[0] == '?') {
                Await(token.substr(1));
                Rest();
            } else if (token == "-") {
                std::filesystem::remove(held);
            } else {
                Context& context = all.at(token[1] - '0');
                token[0] < 'D' ? Abort(context) : Begin(context, token[0] == 'W');
            }
            for (size_t i = 0; i < all.size(); ++i)
                if (Ends(all[i]) > 0 || token == "C" + std::to_string(i))
                    trace += " " + std::to_string(i) + ":" + std::to_string(Result(all[i]));
        }
    }

    ScriptedQueue* queue = nullptr;
    LunData::Parts* parts = nullptr;
    static Context At(uint64_t offset) { return {offset, 512, {256, 256}}; }
    /// 4 shares bytes with 0 and with 5, which share none.
    std::array<Context, 6> all{At(0), At(1024), At(2048), At(3072), At(256), At(512)};
    std::map<char, Ticket> tickets;
    std::string trace;
    std::map<size_t, std::string> begun MO_GUARDED_BY(platform.mutex);  ///< by another thread
    const std::thread::id tester = std::this_thread::get_id();
    const std::string held = directory.path / "held";
};

// A script begins transfers (R0, W1), asks one back that runs (A0) or that waits (C2), and ends
// what the kernel was asked for (0=512, a sync S=-5). The trace shows what it was asked for (a read
// r0, a write w1, one with its own sync D1, the rest behind 100 bytes w1+100, a sync S, one that
// may block D!1), and what was reported (0:512).
TEST_F(Scripted, EachTransferEndsOnceAndWhenItIsDurable) {
    const struct {
        const char* script;
        const char* trace;
        bool durable = true;
    } cases[] = {
        // A write alone carries its sync, whatever is read; others share one, begun once they
        // moved.
        {"R0 W1 0=512 1=512", " r0 D1 0:512 1:512"},
        {"W0 W1 0=512 1=512 W2 W3 2=512 3=512 S=0 W1 1=512 S=0 S=0",
         " D0 w1 0:512 S w2 w3 S 1:512 w1 S 2:512 3:512 1:512"},
        {"W0 W1 0=512 1=512", " w0 w1 0:512 1:512", false},
        // What was under way when a sync failed may be lost.
        {"W0 W1 0=512 1=512 W2 2=512 S=-5 S=0 W3 3=512", " D0 w1 0:512 S w2 S 1:-5 2:-5 D3 3:512"},
        {"W0 W1 0=-5 1=512 S=0", " D0 w1 0:-5 S 1:-5"},
        // The kernel tells a lost write once, so one call at a time may hear it: a sync waits for
        // the end of a write that carries its own, and such a write for the end of a sync.
        {"W0 W1 1=512 R2 0=-5 S=0 2=512", " D0 w1 r2 S 0:-5 1:-5 2:512"},
        {"W0 W1 1=512 0=100 0=412 S=0", " D0 w1 D0+100 S 0:512 1:512"},
        {"R0 W1 W2 0=512 1=512 R0 W3 2=512 S=0 0=512 3=512 S=0",
         " r0 D1 w2 0:512 1:512 r0 S w3 2:512 0:512 S 3:512"},
        // An interrupted request is asked for again, a short one goes on, to an end or an error.
        {"W0 W1 0=512 1=512 S=-4 S=-125 S=0", " D0 w1 0:512 S S S 1:512"},
        {"R0 0=-4 A0 0=-125 0=100 0=200 0=212", " r0 r0 r0 r0+100 r0+300 0:512"},
        {"R0 0=300 0=-5 R1 1=-5 W2 2=256 2=0", " r0 r0+300 0:300 r1 1:-5 D2 D2+256 2:256"},
        {"W0 W1 W2 0=512 1=-5 2=100 2=-5 S=0", " D0 w1 w2 0:512 1:-5 w2+100 S 2:100"},
        // What can't be done without blocking is asked for once more, so that it may block.
        {"W0 0=-11 0=100 0=-11", " D0 D!0 D!0+100 0:100"},
        {"R0 0=-11 0=-11 R0 0=512", " r0 r!0 0:-11 r0 0:512"},
        // Two at once, the others in their order. Asked back is what hasn't begun.
        {"R0 R1 W2 R3 1=512 0=512 2=512 3=512", " r0 r1 D2 1:512 r3 0:512 2:512 3:512"},
        {"R0 R1 R2 R3 C2 A0 0=512 1=512 3=512", " r0 r1 2:-125 r3 0:512 1:512 3:512"},
    };
    for (const auto& [script, expected, durable] : cases) {
        Make(durable);
        Play(script);
        ASSERT_EQ(trace, expected) << script;
    }
    Make();
    Play("R0 0=512 R1 A1 0=-5 A0 1=512");  // its place is another's by the second end
    Play("W2 2=100 2=-28");
    EXPECT_EQ(trace, " r0 0:512 r1 1:512 D2 D2+100 2:100");
    EXPECT_THAT(lun->Snapshot().failures, ElementsAre(Pair(ENOSPC, 1)));
    EXPECT_EQ(lun->Snapshot().ignoredCompletions, 1U);
    EXPECT_EQ(lun->Snapshot().unknownAborts, 1U);
    EXPECT_EQ(lun->Snapshot().aborted, 1U);
}

// Beside the above: what others begin shows at the next "." (when all is quiet) or "?4" (when 4 has
// been begun or has ended); "-" ends the hold of the first write.
TEST_F(Scripted, AWriteWaitsForEarlierOnesOnTheSameBytesAndNothingBeginsTooLate) {
    enum Plan { Plain, Hold, Limit, HoldAndLimit };
    const struct {
        const char* script;
        const char* trace;
        Plan plan = Plain;
    } cases[] = {
        {"W0 W4 . 0=512 . 4=512", " D0 0:512 D4 4:512"},
        {"W0 W5 . R4 5=512 0=512 4=512 S=0", " D0 w5 r4 S 0:512 4:512 5:512"},
        {"W4 W0 W5 . 4=512 . 0=512 5=512 S=0", " D4 4:512 D0 w5 0:512 S 5:512"},
        {"W0 W4 W0 . 0=-5 . 4=512 . 0=512", " D0 0:-5 D4 4:512 D0 0:512"},
        // A sync is part of the write.
        {"W1 W0 W4 0=512 . 1=512 S=0 . 4=512", " D1 w0 S 1:512 0:512 D4 4:512"},
        // The one in the middle is asked back: those behind go on, those before are left alone.
        {"W0 W4 W5 C4 . 0=512 5=512 S=0", " D0 4:-125 w5 0:512 S 5:512"},
        {"W5 W0 W4 C4 . 5=512 0=512 S=0", " D5 w0 4:-125 5:512 S 0:512"},
        {"W0 W4 . - ?0 . 0=512 . 4=512", " D0 0:512 D4 4:512", Hold},
        {"W0 W4 C0 . 4=512", " 0:-125 D4 4:512", Hold},
        // Too late: held, behind a write that is stuck in the disk, and beyond the queue's depth.
        {"W0 ?0 - W4 4=512", " 0:-110 D4 4:512", HoldAndLimit},
        {"W0 W4 ?04 - .", " 0:-110 4:-110", HoldAndLimit},
        {"W0 W4 ?4 0=512 .", " D0 4:-110 0:512", Limit},
        {"R1 R2 R3 ?3 1=512 2=512 .", " r1 r2 3:-110 1:512 2:512", Limit},
    };
    for (const auto& [script, expected, plan] : cases) {
        const FaultRule hold{.kind = FaultKind::Hold, .count = 1, .whileFile = held};
        std::ofstream(held).put('x');
        const bool holds = plan == Hold || plan == HoldAndLimit;
        Make(true, {.rules = {holds ? hold : FaultRule{.after = 1000}}},
             plan == Limit || plan == HoldAndLimit ? 50 : 0);
        Play(script);
        ASSERT_EQ(trace, expected) << script;
    }
}

TEST_F(Scripted, StopWaitsForWhatRunsAndRefusesTheRest) {
    Make();
    // The device may ask a transfer back between Read's first step and the engine's.
    Transfer* const early = parts->transfers.Open(&all[3].io, false, kSize, kSize);
    Abort(all[3]);
    parts->engine->Start(*early);
    EXPECT_EQ(Result(all[3]), -ECANCELED);
    Play("W0 R1 R2 W4");
    std::binary_semaphore stopped(0);
    std::thread stopper([&] { lun->Stop(), stopped.release(); });
    EXPECT_EQ(Result(all[2]), -ECANCELED) << "beyond the depth";
    EXPECT_EQ(Result(all[4]), -ECANCELED) << "behind another write";
    EXPECT_EQ(lun->Snapshot().onLoan, 2U);
    Play("R3 0=512 1=512");
    EXPECT_EQ(trace, " D0 r1 3:-108 0:512 1:512");
    ASSERT_TRUE(stopped.try_acquire_for(std::chrono::seconds(10))) << "it never ends";
    stopper.join();
}
