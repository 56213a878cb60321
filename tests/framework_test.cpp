// The framework libraries, as host and plug-in rely on them.

#include <fcntl.h>
#include <gmock/gmock.h>

#include <fstream>

#include "framework/GetGUID.h"
#include "framework/LogWriters.h"
#include "framework/MODebugFunction.h"
#include "framework/MOPI_Base.h"
#include "framework/MOPlatformInfo.h"
#include "framework/MoProcess.h"
#include "framework/MocHash.h"
#include "tests/support/TempDirectory.h"
#include "util/Platform_Util.h"

TEST(LogWritersTest, MessageIsOneLineWithThePlaceOfErrorsAndTraces) {
    const auto writer = MakeStderrLogWriter(6);
    testing::internal::CaptureStderr();
    for (const int level : {-1, 5, 6})
        writer->WriteMessage(level, "f()", 7, 0, 0, "a\nb%d\n", 1);
    MODebugFunction(writer, 2, "f()", 7, 5, 0, 0, "text");
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "[-1] a b1 (f():7)\n[5] a b1\n[6] a b1 (f():7)\n[5] enter text\n[5] leave\n");
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
    std::string out;
    // Without pipelines: the shell has descriptors and masks of its own while it makes one.
    MoProcess::system("ls /proc/$$/fd; readlink /proc/$$/fd/0; exec grep Blk /proc/self/status",
                      &out, nullptr, 0, false);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    close(leaky);
    EXPECT_EQ(out, "0\n1\n2\n/dev/null\nSigBlk:\t0000000000000000\n");
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
