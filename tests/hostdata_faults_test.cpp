// Injected faults, as a configuration asks for them.
#include <gmock/gmock.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "host/data/FaultInjector.h"
#include "host/data/FaultPlanReader.h"
#include "host/data/LunData.h"
#include "tests/support/HostData.h"

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using hostdata_test::Touch;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

FaultPlanResult Parse(const std::string& text) {
    std::istringstream stream("[faults]\n" + text);
    return ParseFaultPlan(toml::parse(stream, "host.toml").at("faults"));
}

std::string Rule(const std::string& kind, const std::string& keys = "") {
    return "[[faults.rule]]\nkind = \"" + kind + "\"\n" + keys + "\n";
}

class Faults : public testing::TestWithParam<Backing> {
  protected:
    void Make(const std::string& rules) {
        const FaultPlanResult plan = Parse(rules);
        ASSERT_EQ(plan.error, "");
        LunDataResult made = MakeLunData(
            {"lun", GetParam(), m_directory.File("data"), 65536, plan.plan, {}}, m_platform);
        ASSERT_TRUE(made.data) << made.error;
        m_lun = std::move(made.data);
    }
    long Write(char fill) {
        Context context(0, 6, fill);
        m_lun->Write(nullptr, &context.io, 0);
        return Result(context);
    }
    std::string Read() {
        Context context(0, 6, '-');
        m_lun->Read(nullptr, &context.io, 0);
        return std::to_string(Result(context)) + context.bytes;
    }
    long Result(Context& context) { return m_platform.Take(&context.io).bytes; }
    void Abort(Context& context) {
        const MutexGuard device(m_platform.deviceMutex);
        m_lun->Abort(nullptr, &context.io);
    }

    Directory m_directory;
    FakePlatform m_platform;
    std::unique_ptr<LunData> m_lun;
};

INSTANTIATE_TEST_SUITE_P(Data, Faults, testing::Values(Backing::Memory, Backing::File));

TEST_P(Faults, ErrorMovesNothingAndShortMovesAPart) {
    Make(Rule("error", "errno = 28\non = \"write\"\nafter = 1\ncount = 1") +
         Rule("short", "bytes = 3\non = \"read\"\ncount = 1") +
         Rule("error", "on = \"any\"\nafter = 2"));
    EXPECT_EQ(Write('a'), 6);
    EXPECT_EQ(Write('b'), -ENOSPC);
    EXPECT_EQ(Read(), "3aaa---");
    EXPECT_EQ(Read(), "6aaaaaa");
    EXPECT_EQ(Write('c'), -EIO);
    EXPECT_EQ(m_lun->Snapshot().faults, 3U);
    EXPECT_EQ(m_lun->Snapshot().errors, 3U);
}

TEST_P(Faults, DelayBeginsLaterUnlessAnAbortOrAStopEndsIt) {
    Make(Rule("delay", "delay_ms = 1\ncount = 1") + Rule("delay", "delay_ms = 3600000"));
    EXPECT_EQ(Write('a'), 6);
    Context aborted(0, 6);
    Context stopped(0, 6);
    m_lun->Read(nullptr, &aborted.io, 0);
    m_lun->Write(nullptr, &stopped.io, 0);
    EXPECT_EQ(m_platform.Ends(&aborted.io), 0U);
    Abort(aborted);
    const FakePlatform::End end = m_platform.Take(&aborted.io);
    EXPECT_EQ(end.bytes, -ECANCELED);
    EXPECT_NE(end.thread, std::this_thread::get_id());
    EXPECT_EQ(m_platform.Ends(&stopped.io), 0U);  // whoever ended the other has looked at it
    m_lun->Stop();
    ASSERT_EQ(m_platform.Ends(&stopped.io), 1U);
    EXPECT_EQ(Result(stopped), -ECANCELED);
}

TEST_P(Faults, HoldLastsUntilTheFileGoesAway) {
    const std::string file = m_directory.File("hold");
    Make(Rule("hold", "on = \"write\"\nwhile_file = \"" + file + "\""));
    EXPECT_EQ(Write('b'), 6);
    Touch(file);
    Context held(0, 3, 'h');
    Context aborted(0, 3, 'a');
    m_lun->Write(nullptr, &held.io, 0);
    m_lun->Write(nullptr, &aborted.io, 0);
    EXPECT_EQ(Read(), "6bbbbbb") << "passes what is held";
    Abort(aborted);
    EXPECT_EQ(Result(aborted), -ECANCELED);
    EXPECT_EQ(m_platform.Ends(&held.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    std::filesystem::remove(file);
    EXPECT_EQ(Result(held), 3);
    EXPECT_EQ(Read(), "6hhhbbb");
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

TEST(FaultPlanReading, KnowsWhatIsDurableAndQuiet) {
    EXPECT_FALSE(Parse("durable = false").plan.durable);
    EXPECT_TRUE(Parse("").plan.durable);
    EXPECT_TRUE(Parse("").plan.IsQuiet());
    EXPECT_FALSE(Parse(Rule("error")).plan.IsQuiet());
}

TEST(FaultPlanReading, SaysWhereAndWhatIsWrong) {
    const struct {
        std::string text;
        int line;
        const char* error;
    } cases[] = {
        {"sed = 1", 2, "unknown key \"sed\""},
        {"seed = -1", 2, "\"seed\" wants a whole number from 0"},
        {"durable = 1", 2, "true or false"},
        {"rule = 3", 2, "double brackets"},
        {"rule = [3]", 2, "a fault is a table"},
        {"[[faults.rule]]\non = \"read\"", 2, "needs kind"},
        {Rule("eror"), 2, "needs kind"},
        {Rule("hold"), 2, "needs \"while_file\""},
        {Rule("short"), 2, "needs \"bytes\""},
        {Rule("delay"), 2, "needs \"delay_ms\""},
        {Rule("delay", "delay_ms = 0"), 4, "from 1 to 3600000"},
        {Rule("error", "errno = 4096"), 4, "from 1 to 4095"},
        {Rule("error", "bytes = 1"), 4, "belongs to kind = \"short\""},
        {Rule("error", "count = 0"), 4, "from 1"},
        {Rule("error", "rate = 0"), 4, "above 0"},
        {Rule("error", "rate = 1.5"), 4, "up to 1"},
        {Rule("error", "on = \"both\""), 4, "\"any\""},
        {Rule("error", "while_file = \"x\""), 4, "absolute path"},
        {Rule("error", "while = 1"), 4, "unknown key \"while\""},
    };
    for (const auto& [text, line, error] : cases)
        EXPECT_THAT(Parse(text).error, AllOf(StartsWith("host.toml:" + std::to_string(line) + ": "),
                                             HasSubstr(error)));
}

}  // namespace
}  // namespace moscsi::data
