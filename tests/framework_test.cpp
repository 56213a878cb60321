// The framework libraries, as host and plug-in rely on them.

#include <fcntl.h>
#include <gmock/gmock.h>

#include <cctype>
#include <condition_variable>
#include <fstream>
#include <thread>

#include "framework/GetGUID.h"
#include "framework/LogRateLimit.h"
#include "framework/LogWriters.h"
#include "framework/MODebugFunction.h"
#include "framework/MOPI_Base.h"
#include "framework/MOPlatformInfo.h"
#include "framework/MoProcess.h"
#include "framework/MocHash.h"
#include "framework/QueuedOutput.h"
#include "framework/UniqueFd.h"
#include "tests/support/TempDirectory.h"
#include "util/Platform_Util.h"

constexpr std::chrono::milliseconds kDeadline{60000};

// Of each place five lines, then a count at the end of each minute in which there were more; a
// minute without begins anew.
TEST(LogRateLimitTest, FiveLinesAPlaceThenACountAMinute) {
    const char* const place = "f()";
    const char* const other = "g()";
    struct Step {
        int second;
        const char* place;
        int lines;
        int written;
        const char* counts;  // taken before
    };
    LogRateLimit limit;
    const LogRateLimit::Time start{std::chrono::hours(1)};
    int number = 0;
    for (const Step& step :
         {Step{0, place, 4, 4, ""}, Step{59, place, 3, 1, ""}, Step{59, other, 6, 5, ""},
          Step{60, place, 3, 0, "f() 2 more like this in the last minute: 7"},
          Step{119, other, 0, 0, "g() 1 more like this in the last minute: 13"},
          Step{120, place, 0, 0, "f() 3 more like this in the last minute: 16"},
          Step{179, place, 1, 0, ""},
          Step{180, place, 0, 0, "f() 1 more like this in the last minute: 17"},
          Step{240, place, 6, 5, ""}, Step{240, other, 6, 5, ""}}) {
        SCOPED_TRACE(step.second);
        const LogRateLimit::Time now = start + std::chrono::seconds(step.second);
        std::string counts;
        EXPECT_EQ(limit.NextCount().value_or(start + std::chrono::hours(1)) <= now,
                  *step.counts != '\0');
        for (const auto& line : limit.TakeCounts(now))
            counts += std::string(line.place.function) + " " + line.text;
        EXPECT_EQ(counts, step.counts);
        int written = 0;
        for (int i = 0; i < step.lines; ++i)
            written += limit.Allows({{step.place, 1}, -1, std::to_string(++number)}, now) ? 1 : 0;
        EXPECT_EQ(written, step.written);
    }
}

TEST(LogWritersTest, MessageIsOneLineWithThePlaceOfErrorsAndTraces) {
    const auto writer = MakeStderrLogWriter(6);
    testing::internal::CaptureStderr();
    for (const int level : {-1, 5, 6})
        writer->WriteMessage(level, "f()", 7, 0, 0, "a\nb%d\n", 1);
    MODebugFunction(writer, 2, "f()", 7, 5, 0, 0, "text");
    // Of six only the errors of a limited place are cut.
    std::string limitedLines;
    const auto limited = MakeStderrLogWriter(6, {"x", "C::g("});
    for (int i = 0; i < 6; ++i) {
        limited->WriteMessage(-1, "C::g()", 7, 0, 0, "e");
        const std::string number = std::to_string(i);
        limitedLines += (i < 5 ? "[-1] e (C::g():7)\n" : "") + ("[1] " + number) + "\n[-1] " +
                        number + " (h():8)\n";
        for (const char* function : {"C::g()", "h()"})
            limited->WriteMessage(function[0] == 'C' ? 1 : -1, function, 8, 0, 0, "%d", i);
    }
    EXPECT_TRUE(QueuedOutput::Flush(kDeadline));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[-1] a b1 (f():7)\n[5] a b1\n[6] a b1 (f():7)\n[5] enter text\n[5] leave\n" +
                  limitedLines);
}

// A destination that takes a line only when it is told to.
struct SlowReader {
    void Take(size_t lines) {
        const MutexGuard guard(mutex);
        allowed += lines;
        change.notify_all();
    }
    void Write(const OutputQueue::Line& line) {
        const MutexGuard guard(mutex);
        for (begun = true; allowed == 0;)
            change.wait(mutex);
        --allowed;
        text += line.text;
    }
    Mutex mutex;
    std::condition_variable_any change;
    size_t allowed = 0;
    bool begun = false;
    std::string text;
    OutputQueue queue{[this](const OutputQueue::Line& line) { Write(line); },
                      [](size_t count) {
                          return OutputQueue::Line{0, std::to_string(count)};
                      },
                      {.ordinary = 260, .reserve = 130}};  // four lines, and two
};

// Room for four, for two more that are important, and a line in the place of what there was no room
// for, once half is taken. The first line is with the reader and takes no room.
TEST(QueuedOutputTest, WhatNobodyTakesIsDroppedImportantLinesLast) {
    constexpr auto kOrdinary = OutputQueue::Rank::Ordinary;
    constexpr auto kImportant = OutputQueue::Rank::Important;
    struct Case {
        const char* put;  // capitals are important
        const char* later;
        const char* written;
    };
    for (const Case& c :
         {Case{"abcd", "", "abcd"}, Case{"abcdefg", "", "abcd3"}, Case{"abcdEFGh", "", "abcdEF2"},
          Case{"ABCDEFG", "", "ABCDEF1"}, Case{"abcdefEg", "xYz", "abcdE3xYz"}}) {
        SlowReader reader;
        const auto put = [&](const char* letters) {
            for (const char* letter = letters; *letter != '\0'; ++letter)
                reader.queue.Put({0, std::string(1, *letter)},
                                 isupper(*letter) != 0 ? kImportant : kOrdinary);
        };
        put("-");
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        const auto withReader = [&] {
            const MutexGuard guard(reader.mutex);
            return reader.begun;
        };
        while (!withReader() && std::chrono::steady_clock::now() < end)
            std::this_thread::yield();
        put(c.put);
        EXPECT_FALSE(reader.queue.Flush(std::chrono::steady_clock::now()));
        reader.Take(100);
        EXPECT_TRUE(reader.queue.Flush(end));
        put(c.later);
        EXPECT_TRUE(reader.queue.Flush(end));
        EXPECT_EQ(reader.text, std::string("-") + c.written) << c.put;
    }
}

TEST(QueuedOutputDeathTest, EveryWayOutLeavesTimeForWhatIsQueued) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    // What stands before the last line goes through a pipe that is read byte by byte.
    const auto end = [](const std::function<void()>& way) {
        UniqueFd readEnd;
        UniqueFd writeEnd;
        MakePipe(readEnd, writeEnd);
        fcntl(writeEnd.Get(), F_SETPIPE_SZ, 4096);
        std::thread([&readEnd] {
            for (char byte = 0; read(readEnd.Get(), &byte, 1) == 1;) {
            }
        }).detach();
        QueuedOutput::FlushAtFaults();
        QueuedOutput::Put(writeEnd.Get(), std::string(20000, 'x'), OutputQueue::Rank::Ordinary);
        QueuedOutput::Put(STDERR_FILENO, "last words\n", OutputQueue::Rank::Important);
        way();
    };
    const auto aborted = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(end(abort), aborted, "last words");
    EXPECT_EXIT(end([] { std::thread([] { throw std::runtime_error("why"); }).join(); }), aborted,
                "words\n.*why");
    EXPECT_EXIT(end([] { exit(3); }), testing::ExitedWithCode(3), "last words");
    EXPECT_EXIT(end([] { _exit(QueuedOutput::Flush(kDeadline) ? 3 : 4); }),
                testing::ExitedWithCode(3), "last words");
}

TEST(HashTest, AgreesWithPublishedVectorsInAnyPieces) {
    std::string guid = "old";
    GetGUID("abc", 3, guid);
    EXPECT_EQ(guid, "900150983cd24fb0d6963f7d28e17f72");  // RFC 1321, A.5

    char digest[20] = "...................";
    MocMD5 hash;
    hash.addData("junk", 4);
    hash.reset();
    hash.addData("a", 1);
    hash.addData("bc", 2);
    EXPECT_EQ(hash.finish(reinterpret_cast<unsigned char*>(digest), sizeof digest), 16U);
    EXPECT_STREQ(digest, "\x90\x01\x50\x98\x3c\xd2\x4f\xb0\xd6\x96\x3f\x7d\x28\xe1\x7f\x72...");

    unsigned int crc = 0;
    Moc::crc32("1234", 4, &crc);
    Moc::crc32("56789", 5, &crc);
    EXPECT_EQ(crc, 0xCBF43926U);  // the check value of this CRC
}

TEST(MoProcessTest, CollectsBothStreamsOfAnySize) {
    std::string out;
    std::string err;
    const std::string megabytes = "head -c 3000000 /dev/zero | tr '\\0' x";
    EXPECT_EQ(
        MoProcess::system(megabytes + "; (" + megabytes + ") >&2; exit 3", &out, &err, 0, false),
        3);
    EXPECT_EQ(out.size(), 3000000U);
    EXPECT_EQ(err.size(), 3000000U);
    EXPECT_EQ(MoProcess::system("echo a; echo b >&2", nullptr, nullptr, 0, false), 0);
    signal(SIGPIPE, SIG_IGN);  // here, but not in a command
    EXPECT_EQ(MoProcess::system("kill -PIPE $$", nullptr, nullptr, 0, false), 128 + SIGPIPE);
}

TEST(MoProcessTest, ChildGetsNoDescriptorAndNoBlockedSignal) {
    const int leaky = open("/", O_RDONLY);  // deliberately not close-on-exec
    dup2(leaky, 0);
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    for (const int ignored : {SIGPIPE, SIGHUP})  // the latter is nohup's, meant for children too
        signal(ignored, SIG_IGN);
    std::string out;
    // Without pipelines: the shell has descriptors and masks of its own while it makes one.
    MoProcess::system(
        "ls /proc/$$/fd; readlink /proc/$$/fd/0; exec sed -nE '/^SigBlk/p; s/^SigIgn.*(.)$/\\1/p' "
        "/proc/self/status",
        &out, nullptr, 0, false);
    signal(SIGHUP, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(leaky);
    EXPECT_EQ(out, "0\n1\n2\n/dev/null\nSigBlk:\t0000000000000000\n1\n");
}

TEST(FactsTest, FileGivesHomeStringsAndTheServicePort) {
    const TempDirectory directory;
    const std::string file = directory.path / "facts.toml";
    PlatformFacts facts;
    const auto read = [&](const std::string& text) {
        std::ofstream(file) << text;
        return MOPlatformInfo::readFacts(file, facts);
    };
    ASSERT_EQ(read("home='/h'\nmachine='m'\n[strings.Base]\ndBASEHOME='/b'\n"
                   "[clients.m]\nid=5\niscsi_port=3261\n[clients.other]\nid=6\n"),
              "");
    const std::pair<std::string, const char*> faults[] = {
        {"\nhome=3", ":2: home must be a text"},
        {"home='h'", ":1: home must be an absolute path"},
        {"home='/h/'", ":1: home must be an absolute path"},
        {"home='/a b'", ":1: home must be an absolute path"},
        {"home='/h'\nhome='/i'", ":2: has \"home\" a second time: leave one"},
        {"home='/h\xE9'", ":1: has a character that isn't UTF-8"},
        {"home=" + std::string(100000, '['), ": can't be read: .*nest"},
        {std::string(1 << 20, '#') + "\n", ": can't be read: it is longer"},
        {"machine=", ":1: is not TOML: .*: mend the line"},
        {"[strings]\na=1", ":2: a must be a table"},
        {"[strings.a]\nb=1", ":2: b must be a text"},
        {"clients=1", ":1: clients must be a table"},
        {"[clients]\na=1", ":2: clients.a must be a table with an id"},
        {"[clients.a]\nid=-1", ":2: id must be a whole number from 0"},
        {"[clients.a]\nid=1\niscsi_port=65536", ":3: iscsi_port must be a whole number"},
    };
    for (const auto& [text, said] : faults)
        EXPECT_THAT(read(text), testing::ContainsRegex("^[^\n]*" + file + said + "[^\n]*$"));
    MOPlatformInfo::setFacts(facts);
    EXPECT_STREQ(MOPI_Base().getHomeDirectory(), "/h");
    std::string value = "untouched";
    EXPECT_EQ(MOPlatformInfo::getString("Base", "nothing", &value), 0);
    EXPECT_EQ(value, "untouched");
    EXPECT_NE(MOPlatformInfo::getString("Base", "dBASEHOME", &value), 0);
    EXPECT_EQ(value, "/b");
    EXPECT_EQ(Platform_Util::GetScsiServicePort(), 3261);
    for (const char* machine : {"other" /* no such property */, "stranger" /* no client */}) {
        facts.physicalMachine = machine;
        MOPlatformInfo::setFacts(facts);
        EXPECT_EQ(Platform_Util::GetScsiServicePort(), -1) << machine;
    }
}
