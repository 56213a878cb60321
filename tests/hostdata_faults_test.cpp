// Injected faults.
#include <cerrno>
#include <nlohmann/json.hpp>

#include "host/data/FailureLog.h"
#include "host/data/FaultInjector.h"
#include "tests/support/HostData.h"

struct Faults : LunTest {
    void Make(const std::vector<FaultRule>& rules) {
        Provide(65536);
        ASSERT_EQ(LunTest::Make({"lun", Backing::File, path, 65536, {.rules = rules}, {}}), "");
    }
    long Write(char fill) {
        Context context(0, 6, fill);
        Begin(context, true);
        return Result(context);
    }
    std::string Read() {
        Context context(0, 6, '-');
        Begin(context, false);
        return std::to_string(Result(context)) + context.bytes;
    }
};

TEST_F(Faults, ErrorMovesNothingAndShortMovesAPart) {
    Make(
        {{.kind = FaultKind::Error, .onRead = false, .after = 1, .count = 1, .errorNumber = ENOSPC},
         {.kind = FaultKind::Short, .onWrite = false, .count = 1, .bytes = 3},
         {.kind = FaultKind::Error, .after = 2}});
    EXPECT_EQ(Write('a'), 6);
    EXPECT_EQ(Write('b'), -ENOSPC);
    EXPECT_EQ(Read(), "3aaa---");
    EXPECT_EQ(Read(), "6aaaaaa");
    EXPECT_EQ(Write('c'), -EIO);
    EXPECT_THAT(
        ToJson(lun->Snapshot()).dump(),
        AllOf(
            HasSubstr(R"("aborted":0,)"), HasSubstr(R"("bytes_read":9,"bytes_written":6,)"),
            HasSubstr(
                R"("errors":3,"failures":{"EIO":1,"ENOSPC":1},"faults":3,"ignored_completions":0,"on_loan":0,)"
                R"("reads":2,"unknown_aborts":0,"writes":3)")));
}

TEST_F(Faults, WhatIsDelayedOrHeldEndsByAnAbortOrAStop) {
    Make({{.kind = FaultKind::Delay, .count = 1, .delayMs = 1},
          {.kind = FaultKind::Hold, .onWrite = false, .whileFile = "/dev/null"},
          {.kind = FaultKind::Delay, .delayMs = 3600000}});
    EXPECT_EQ(Write('a'), 6);
    Context aborted(0, 6);
    Context stopped(0, 6);
    Begin(aborted, false);
    Begin(stopped, true);
    EXPECT_EQ(Ends(aborted), 0U);
    Abort(aborted);
    EXPECT_EQ(Result(aborted), -ECANCELED);
    AwaitSleep();
    EXPECT_EQ(Ends(stopped), 0U);  // whoever ended the other has looked at it
    lun->Stop();
    ASSERT_EQ(Ends(stopped), 1U);
    EXPECT_EQ(Result(stopped), -ECANCELED);
}

TEST_F(Faults, WhatIsHeldDoesNotLandOnWhatWasWrittenAfterIt) {
    for (const Backing backing : kBackings) {
        const std::string held = directory.path / "held";
        std::ofstream(held).put('x');
        std::ofstream(path).put(0);
        std::filesystem::resize_file(path, 65536);
        const FaultRule hold{.kind = FaultKind::Hold, .count = 1, .whileFile = held};
        ASSERT_EQ(LunTest::Make({"lun", backing, path, 65536, {.rules = {hold}}, {}}), "");
        Context older(0, 6, 'o');
        Context newer(0, 6, 'n');
        Begin(older, true);
        Begin(newer, true);
        AwaitSleep();
        std::filesystem::remove(held);
        EXPECT_EQ(Result(older), 6);
        EXPECT_EQ(Result(newer), 6);
        EXPECT_EQ(Read(), "6nnnnnn") << BackingName(backing);
    }
}

TEST(Failures, TheFirstOfAKindIsALineAndTheOthersOneAMinute) {
    FailureLog log("lun", "/x");
    const struct {
        int second;
        int number;
        const char* line;
    } failures[] = {
        {0, ENOSPC, "lun: a write failed in /x: No space left on device"},
        {1, ENOSPC, ""},
        {2, EIO, "lun: a write failed in /x: Input/output error"},
        {3, ECANCELED, ""},
        {59, ENOSPC, ""},
        {60, ENOSPC,
         "lun: a write failed in /x: No space left on device (2 more since the last line)"},
        {119, ENOSPC, ""},
        {300, EIO, "lun: a write failed in /x: Input/output error"},
    };
    for (const auto& [second, number, line] : failures)
        EXPECT_EQ(
            log.Note(true, number, FailureLog::Clock::time_point(std::chrono::seconds(second + 9))),
            line);
    EXPECT_THAT(log.Counts(), ElementsAre(Pair(EIO, 2), Pair(ENOSPC, 5), Pair(ECANCELED, 1)));
}

TEST(FaultInjection, ARateHitsTheSameWayForTheSameSeed) {
    const auto hits = [](uint64_t seed) {
        FaultInjector injector({.rules = {{.rate = 0.25}}, .seed = seed});
        std::string pattern;
        for (int i = 0; i < 2000; ++i)
            pattern += injector.Next(false) != nullptr ? 'X' : '.';
        return pattern;
    };
    EXPECT_EQ(hits(5), hits(5));
    EXPECT_NE(hits(5), hits(6));
    EXPECT_NEAR(std::ranges::count(hits(5), 'X'), 500, 100);
}
