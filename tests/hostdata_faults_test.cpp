// Injected faults and their configuration.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <sstream>

#include "host/data/FaultInjector.h"
#include "host/data/FaultPlanReader.h"
#include "host/data/LunData.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using hostdata_test::Touch;
using testing::AllOf;
using testing::HasSubstr;
using testing::StartsWith;

constexpr uint64_t kSize = 64 * 1024;

class Faults : public testing::TestWithParam<Backing> {
  protected:
    void Make(std::vector<FaultRule> rules) {
        CapturingLogWriter::Installed().Reset(kLogError);
        LunDataConfig config{"lun", GetParam(), m_directory.File("data"), kSize, {}, {}};
        config.faults.rules = std::move(rules);
        LunDataResult made = MakeLunData(config, m_platform);
        ASSERT_TRUE(made.data) << made.error;
        m_lun = std::move(made.data);
    }
    long Write(uint64_t offset, const std::string& text) {
        Context context(offset, text.size());
        context.bytes = text;
        context.buffers[0].iov_base = context.bytes.data();
        m_lun->Write(nullptr, &context.io, 0);
        return Result(context);
    }
    long Read(uint64_t offset, size_t length, std::string& text) {
        Context context(offset, length, '-');
        m_lun->Read(nullptr, &context.io, 0);
        const long result = Result(context);
        text = context.bytes;
        return result;
    }
    long Result(Context& context) {
        const long result = m_platform.Wait(&context.io).bytes;
        m_platform.Forget(&context.io);
        return result;
    }

    Directory m_directory;
    FakePlatform m_platform;
    std::unique_ptr<LunData> m_lun;
};

INSTANTIATE_TEST_SUITE_P(Data, Faults, testing::Values(Backing::Memory, Backing::File));

TEST_P(Faults, ErrorMovesNothingAndShortMovesAPart) {
    FaultRule error;
    error.errorNumber = ENOSPC;
    error.onRead = false;
    error.after = 1;
    error.count = 1;
    FaultRule cut;
    cut.kind = FaultKind::Short;
    cut.bytes = 3;
    cut.onWrite = false;
    cut.count = 1;
    Make({error, cut});
    std::string text;
    EXPECT_EQ(Write(0, "aaaaaa"), 6);
    EXPECT_EQ(Write(0, "bbbbbb"), -ENOSPC);
    EXPECT_EQ(Read(0, 6, text), 3);
    EXPECT_EQ(text, "aaa---");
    EXPECT_EQ(Read(0, 6, text), 6);
    EXPECT_EQ(text, "aaaaaa");
    EXPECT_EQ(Write(0, "cccccc"), 6);
    EXPECT_EQ(m_lun->Snapshot().faults, 2U);
    EXPECT_EQ(m_lun->Snapshot().errors, 2U);
}

TEST_P(Faults, DelayBeginsLaterAndAnAbortEndsItAtOnce) {
    FaultRule brief;
    brief.kind = FaultKind::Delay;
    brief.delayMs = 1;
    brief.count = 1;
    FaultRule endless = brief;
    endless.delayMs = 3'600'000;
    Make({brief, endless});
    EXPECT_EQ(Write(0, "hello"), 5);
    Context late(0, 5);
    m_lun->Read(nullptr, &late.io, 0);
    EXPECT_EQ(m_platform.Ends(&late.io), 0U);
    {
        const MutexGuard device(m_platform.deviceMutex);
        m_lun->Abort(nullptr, &late.io);
    }
    EXPECT_EQ(m_platform.Wait(&late.io).bytes, -ECANCELED);
    EXPECT_NE(m_platform.Wait(&late.io).thread, std::this_thread::get_id());
    std::string text;
    EXPECT_EQ(Read(0, 5, text), 5);
    EXPECT_EQ(text, "hello");
}

TEST_P(Faults, HoldLastsUntilTheFileGoesAway) {
    const std::string file = m_directory.File("hold");
    FaultRule hold;
    hold.kind = FaultKind::Hold;
    hold.whileFile = file;
    hold.onRead = false;
    Make({hold});
    EXPECT_EQ(Write(0, "before"), 6);
    Touch(file);
    Context held(0, 5, 'h');
    Context aborted(0, 5, 'a');
    m_lun->Write(nullptr, &held.io, 0);
    m_lun->Write(nullptr, &aborted.io, 0);
    std::string text;
    EXPECT_EQ(Read(0, 6, text), 6);  // passes what is held
    EXPECT_EQ(text, "before");
    m_lun->Abort(nullptr, &aborted.io);
    EXPECT_EQ(m_platform.Wait(&aborted.io).bytes, -ECANCELED);
    EXPECT_EQ(m_platform.Ends(&held.io), 0U);
    EXPECT_EQ(m_lun->Snapshot().onLoan, 1U);
    std::filesystem::remove(file);
    EXPECT_EQ(m_platform.Wait(&held.io).bytes, 5);
    EXPECT_EQ(Read(0, 6, text), 6);
    EXPECT_EQ(text, "hhhhhe");
}

TEST_P(Faults, StopGivesBackWhatWaits) {
    FaultRule endless;
    endless.kind = FaultKind::Delay;
    endless.delayMs = 3'600'000;
    Make({endless});
    Context waiting(0, 5);
    Context other(0, 5);
    m_lun->Write(nullptr, &waiting.io, 0);
    m_lun->Write(nullptr, &other.io, 0);
    m_lun->Abort(nullptr, &other.io);
    m_platform.Wait(&other.io);  // whoever ends it has also looked at what waits
    m_lun->Stop();
    ASSERT_EQ(m_platform.Ends(&waiting.io), 1U);
    EXPECT_EQ(m_platform.Wait(&waiting.io).bytes, -ECANCELED);
}

TEST(FaultInjectorRules, HitByRateTheSameWayForTheSameSeed) {
    FaultRule rule;
    rule.rate = 0.25;
    const auto hits = [&](uint64_t seed) {
        FaultInjector injector({{rule}, seed, true});
        std::string pattern;
        for (int i = 0; i < 2000; ++i)
            pattern += injector.Next(false) != nullptr ? 'X' : '.';
        return pattern;
    };
    EXPECT_EQ(hits(5), hits(5));
    EXPECT_NE(hits(5), hits(6));
    EXPECT_NEAR(std::ranges::count(hits(5), 'X'), 500, 100);
}

TEST(FaultInjectorRules, TheFirstRuleThatHitsCountsAndAFileBindsOne) {
    const Directory directory;
    FaultRule bound;
    bound.whileFile = directory.File("on");
    FaultRule second;
    second.after = 1;
    FaultInjector injector({{bound, second}, 1, true});
    const FaultRule* const none = injector.Next(true);
    const FaultRule* const passed = injector.Next(true);
    Touch(bound.whileFile);
    const FaultRule* const first = injector.Next(true);
    EXPECT_EQ(none, nullptr);
    ASSERT_NE(passed, nullptr);
    EXPECT_EQ(passed->after, 1U);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->whileFile, bound.whileFile);
}

// ---- Their configuration ------------------------------------------------------------------------

FaultPlanResult Parse(const std::string& text) {
    std::istringstream stream("[faults]\n" + text);
    return ParseFaultPlan(toml::parse(stream, "host.toml").at("faults"));
}

TEST(FaultPlanReading, TakesEveryKey) {
    const FaultPlanResult read = Parse(R"(seed = 9
durable = false
[[faults.rule]]
kind = "error"
on = "read"
after = 1
count = 2
rate = 0.5
errno = 28
while_file = "/run/x"
[[faults.rule]]
kind = "short"
on = "write"
bytes = 512
[[faults.rule]]
kind = "delay"
delay_ms = 20
[[faults.rule]]
kind = "hold"
while_file = "/run/y"
rate = 1
)");
    ASSERT_EQ(read.error, "");
    const FaultPlan& plan = read.plan;
    EXPECT_EQ(plan.seed, 9U);
    EXPECT_FALSE(plan.durable);
    ASSERT_EQ(plan.rules.size(), 4U);
    std::string seen;
    for (const FaultRule& r : plan.rules) {
        std::ostringstream line;
        line << static_cast<int>(r.kind) << r.onRead << r.onWrite << ' ' << r.after << ' '
             << r.count << ' ' << r.rate << ' ' << r.whileFile << ' ' << r.errorNumber << ' '
             << r.bytes << ' ' << r.delayMs << '\n';
        seen += line.str();
    }
    EXPECT_EQ(seen,
              "010 1 2 0.5 /run/x 28 0 0\n101 0 0 1  5 512 0\n"
              "211 0 0 1  5 0 20\n311 0 0 1 /run/y 5 0 0\n");
    EXPECT_TRUE(Parse("").plan.IsQuiet());
    EXPECT_FALSE(plan.IsQuiet());
}

TEST(FaultPlanReading, SaysWhereAndWhatIsWrong) {
    const std::string rule = "[[faults.rule]]\nkind = ";
    const std::vector<std::pair<std::string, std::pair<int, std::string>>> cases = {
        {"sed = 1", {2, "unknown key \"sed\""}},
        {"seed = -1", {2, "\"seed\" wants a whole number from 0"}},
        {"seed = \"1\"", {2, "\"seed\" wants a whole number"}},
        {"durable = 1", {2, "true or false"}},
        {"rule = 3", {2, "double brackets"}},
        {"rule = [3]", {2, "a fault is a table"}},
        {"[[faults.rule]]\non = \"read\"", {2, "needs kind"}},
        {rule + "\"eror\"", {2, "needs kind"}},
        {rule + "\"hold\"", {2, "needs \"while_file\""}},
        {rule + "\"short\"", {2, "needs \"bytes\""}},
        {rule + "\"delay\"", {2, "needs \"delay_ms\""}},
        {rule + "\"delay\"\ndelay_ms = 0", {4, "from 1 to 3600000"}},
        {rule + "\"error\"\nerrno = 0", {4, "from 1 to 4095"}},
        {rule + "\"error\"\nerrno = 4096", {4, "from 1 to 4095"}},
        {rule + "\"error\"\nbytes = 1", {4, "belongs to kind = \"short\""}},
        {rule + "\"error\"\ncount = 0", {4, "from 1"}},
        {rule + "\"error\"\nrate = 0", {4, "above 0"}},
        {rule + "\"error\"\nrate = 1.5", {4, "up to 1"}},
        {rule + "\"error\"\non = \"both\"", {4, "\"any\""}},
        {rule + "\"error\"\nwhile_file = \"x\"", {4, "absolute path"}},
        {rule + "\"error\"\nwhile_file = 1", {4, "text in quotes"}},
        {rule + "\"error\"\nwhile = 1", {4, "unknown key \"while\""}},
    };
    for (const auto& [text, expected] : cases)
        EXPECT_THAT(Parse(text).error,
                    AllOf(StartsWith("host.toml:" + std::to_string(expected.first) + ": "),
                          HasSubstr(expected.second)))
            << text;
}

}  // namespace
}  // namespace moscsi::data
