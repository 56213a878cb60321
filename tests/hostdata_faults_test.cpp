// Injected faults, as a configuration asks for them.
#include <cerrno>
#include <sstream>

#include "host/data/FaultInjector.h"
#include "host/data/FaultPlanReader.h"
#include "tests/support/HostData.h"

FaultPlanResult Parse(const std::string& text) {
    std::istringstream stream("[faults]\n" + text);
    return ParseFaultPlan(toml::parse(stream, "host.toml").at("faults"));
}

std::string Rule(const std::string& kind, const std::string& keys = "") {
    return "[[faults.rule]]\nkind = \"" + kind + "\"\n" + keys + "\n";
}

struct Faults : LunTest {
    void Make(const std::string& rules) {
        const FaultPlanResult plan = Parse(rules);
        ASSERT_EQ(plan.error + LunTest::Make({"lun", Backing::File, path, 65536, plan.plan, {}}),
                  "");
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
    Make(Rule("error", "errno = 28\non = \"write\"\nafter = 1\ncount = 1") +
         Rule("short", "bytes = 3\non = \"read\"\ncount = 1") +
         Rule("error", "on = \"any\"\nafter = 2"));
    EXPECT_EQ(Write('a'), 6);
    EXPECT_EQ(Write('b'), -ENOSPC);
    EXPECT_EQ(Read(), "3aaa---");
    EXPECT_EQ(Read(), "6aaaaaa");
    EXPECT_EQ(Write('c'), -EIO);
    EXPECT_EQ(lun->Snapshot().faults, 3U);
}

TEST_F(Faults, WhatIsDelayedOrHeldEndsByAnAbortOrAStop) {
    Make(Rule("delay", "delay_ms = 1\ncount = 1") +
         Rule("hold", "on = \"read\"\nwhile_file = \"/dev/null\"") +
         Rule("delay", "delay_ms = 3600000"));
    EXPECT_EQ(Write('a'), 6);
    Context aborted(0, 6);
    Context stopped(0, 6);
    Begin(aborted, false);
    Begin(stopped, true);
    EXPECT_EQ(Ends(aborted), 0U);
    Abort(aborted);
    EXPECT_EQ(Result(aborted), -ECANCELED);
    EXPECT_EQ(Ends(stopped), 0U);  // whoever ended the other has looked at it
    lun->Stop();
    ASSERT_EQ(Ends(stopped), 1U);
    EXPECT_EQ(Result(stopped), -ECANCELED);
}

TEST(FaultPlanReading, ARateHitsTheSameWayForTheSameSeed) {
    const auto hits = [&](const std::string& seed) {
        FaultInjector injector(Parse("seed = " + seed + "\n" + Rule("error", "rate = 0.25")).plan);
        std::string pattern;
        for (int i = 0; i < 2000; ++i)
            pattern += injector.Next(false) != nullptr ? 'X' : '.';
        return pattern;
    };
    EXPECT_EQ(hits("5"), hits("5"));
    EXPECT_NE(hits("5"), hits("6"));
    EXPECT_NEAR(std::ranges::count(hits("5"), 'X'), 500, 100);
}

TEST(FaultPlanReading, KnowsWhatIsDurableAndSaysWhatIsWrong) {
    EXPECT_FALSE(Parse("durable = false").plan.durable);
    EXPECT_TRUE(Parse("").plan.durable);
    const std::tuple<std::string, int, const char*> cases[] = {
        {"sed = 1", 2, "unknown key \"sed\""},
        {"seed = -1", 2, "\"seed\" wants a whole number from 0"},
        {"durable = 1", 2, "true or false"},
        {"rule = 3", 2, "double brackets"},
        {"rule = [3]", 2, "a fault is a table"},
        {Rule("eror"), 2, "needs kind"},
        {Rule("hold"), 2, "needs \"while_file\""},
        {Rule("delay", "delay_ms = 0"), 4, "from 1 to 3600000"},
        {Rule("error", "bytes = 1"), 4, "belongs to kind = \"short\""},
        {Rule("error", "rate = 0"), 4, "above 0"},
        {Rule("error", "rate = 1.5"), 4, "up to 1"},
        {Rule("error", "on = \"both\""), 4, "\"any\""},
        {Rule("error", "while_file = \"x\""), 4, "absolute path"},
    };
    for (const auto& [text, line, error] : cases)
        EXPECT_THAT(Parse(text).error, AllOf(StartsWith("host.toml:" + std::to_string(line) + ": "),
                                             HasSubstr(error)));
}
