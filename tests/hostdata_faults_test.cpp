// Injected faults, their configuration, and the file behind a LUN.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "host/data/BackingFile.h"
#include "host/data/FaultInjector.h"
#include "host/data/FaultPlanReader.h"
#include "host/data/LunData.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HostData.h"
#include "util/Log.h"

namespace {

// What was synced and named, in order; the n-th fsync fails.
std::vector<std::string> g_steps;
int g_failingSync = 0;

}  // namespace

extern "C" int __real_fsync(int fd);   // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_fsync(int fd) {  // NOLINT(bugprone-reserved-identifier)
    struct stat found = {};
    fstat(fd, &found);
    g_steps.push_back(S_ISDIR(found.st_mode) ? "sync directory"
                                             : "sync " + std::to_string(found.st_size) + " bytes");
    if (g_failingSync > 0 && --g_failingSync == 0) {
        errno = EIO;
        return -1;
    }
    return __real_fsync(fd);
}
extern "C" int __real_link(const char* from,
                           const char* to);  // NOLINT(bugprone-reserved-identifier)
extern "C" int __wrap_link(const char* from,
                           const char* to) {  // NOLINT(bugprone-reserved-identifier)
    g_steps.emplace_back("name");
    return __real_link(from, to);
}

namespace moscsi::data {
namespace {

using hostdata_test::Context;
using hostdata_test::Directory;
using hostdata_test::FakePlatform;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

constexpr uint64_t kSize = 64 * 1024;

void Touch(const std::string& path) {
    std::ofstream(path).put('x');
}

// ---- Faults -----------------------------------------------------------------------------------

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

TEST_P(Faults, StopGivesBackWhatIsHeld) {
    const std::string file = m_directory.File("hold");
    Touch(file);
    FaultRule hold;
    hold.kind = FaultKind::Hold;
    hold.whileFile = file;
    Make({hold});
    Context held(0, 5);
    m_lun->Write(nullptr, &held.io, 0);
    m_lun->Stop();
    ASSERT_EQ(m_platform.Ends(&held.io), 1U);
    EXPECT_EQ(m_platform.Wait(&held.io).bytes, -ECANCELED);
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

// ---- The file behind a LUN ----------------------------------------------------------------------

class Files : public testing::Test {
  protected:
    void SetUp() override {
        g_steps.clear();
        g_failingSync = 0;
    }
    std::string Open(BackingFile& file, uint64_t size) {
        std::string error;
        const bool opened = file.Open(m_path, size, error);
        EXPECT_EQ(opened, error.empty());
        return error;
    }
    std::vector<std::string> Left() const {
        std::vector<std::string> names;
        for (const auto& each : std::filesystem::directory_iterator(m_directory.File("")))
            names.push_back(each.path().filename());
        return names;
    }

    Directory m_directory;
    std::string m_path = m_directory.File("data");
};

TEST_F(Files, ANewFileIsSyncedBeforeItHasItsNameAndItsDirectoryAfter) {
    Touch(m_path + ".new");  // a crash left it
    BackingFile file;
    ASSERT_EQ(Open(file, kSize), "");
    EXPECT_THAT(g_steps, ElementsAre("sync 65536 bytes", "name", "sync directory"));
    EXPECT_THAT(Left(), ElementsAre("data"));
    EXPECT_EQ(std::filesystem::file_size(m_path), kSize);
    char first = 'x';
    EXPECT_EQ(pread(file.Fd(), &first, 1, 0), 1);
    EXPECT_EQ(first, '\0');
    EXPECT_EQ(fcntl(file.Fd(), F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
}

TEST_F(Files, NothingIsLeftWhenASyncFails) {
    for (const int failing : {1, 2}) {
        g_failingSync = failing;
        BackingFile file;
        EXPECT_THAT(Open(file, kSize), HasSubstr("Input/output error"));
        EXPECT_EQ(file.Fd(), -1);
        EXPECT_THAT(Left(), IsEmpty());
    }
}

TEST_F(Files, OneFileServesOneLun) {
    BackingFile file;
    ASSERT_EQ(Open(file, kSize), "");
    BackingFile other;
    EXPECT_THAT(Open(other, kSize), HasSubstr("in use by another LUN"));
    { const BackingFile moved = std::move(file); }
    EXPECT_EQ(Open(other, kSize), "");
    EXPECT_EQ(g_steps.size(), 3U);  // an existing file is not made again
}

TEST_F(Files, RefusesWhatIsNotTheLunsFile) {
    struct Case {
        std::function<void(const std::string&)> make;
        std::string error;
    };
    const std::vector<Case> cases = {
        {[](const std::string& path) { Touch(path); }, "has 1 bytes, the LUN 65536"},
        {[](const std::string& path) { mkfifo(path.c_str(), 0600); }, "not a regular file"},
        {[](const std::string& path) { std::filesystem::create_directory(path); }, "can't open"},
        {[](const std::string& path) { std::filesystem::create_symlink("/nowhere/x", path); },
         "can't open"},
        {[](const std::string& path) {
             const int fd = open((path + ".new").c_str(), O_CREAT | O_RDWR, 0600);
             EXPECT_EQ(flock(fd, LOCK_EX), 0);  // kept: another host is making it
         },
         ".new is in use"},
    };
    for (const Case& each : cases) {
        each.make(m_path);
        BackingFile file;
        EXPECT_THAT(Open(file, kSize), HasSubstr(each.error));
        EXPECT_EQ(file.Fd(), -1);
        std::filesystem::remove(m_path);
    }
    m_path = m_directory.File("no/such");
    BackingFile file;
    EXPECT_THAT(Open(file, kSize), HasSubstr("can't make"));
}

TEST(LunDataMaking, SaysWhatIsWrongInOneLine) {
    FakePlatform platform;
    const Directory directory;
    const std::string path = directory.File("data");
    const std::vector<std::pair<LunDataConfig, std::string>> cases = {
        {{"a", Backing::Memory, "", 0, {}, {}}, "a size of 0 bytes"},
        {{"b", Backing::Memory, "", 1000, {}, {}}, "a size of 1000 bytes"},
        {{"c", Backing::Memory, "", uint64_t{1} << 62U, {}, {}}, "make the LUN smaller"},
        {{"d", Backing::File, "/dev/null", 512, {}, {}}, "/dev/null is not a regular file"},
    };
    for (const auto& [config, error] : cases) {
        const LunDataResult made = MakeLunData(config, platform);
        EXPECT_EQ(made.data, nullptr);
        EXPECT_THAT(made.error, HasSubstr(error));
    }
}

}  // namespace
}  // namespace moscsi::data
