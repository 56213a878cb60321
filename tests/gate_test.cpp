// The gate's rules, where the random commands of tests/fuzz/gate_fuzz.cpp don't come: large LUNs, a
// host that holds or isn't there, how buffers are reshaped, limits.

#include <gmock/gmock.h>

#include "libtcmu/Cdb.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/GateRig.h"
#include "tests/support/HeapProbe.h"

struct GateTest : testing::Test, GateRig {
    CapturingLogWriter& log = CapturingLogWriter::Installed();  // before the runner's thread logs
    TestHost host{device.cfgString, false};

    // "5/2400", or "good", "none", a status by its number.
    std::string Sense(const Bytes& cdb, const Extents& pieces) {
        const auto answer = Answer(cdb, pieces);
        if (!answer || answer->status != 2)
            return !answer ? "none" : answer->status == 0 ? "good" : std::to_string(answer->status);
        char text[16];
        snprintf(text, sizeof text, "%x/%04x", answer->sense[2], LoadBe16(&answer->sense[12]));
        return text;
    }
    std::string Move(uint8_t opcode) {
        return Sense({opcode, 0, 0, 0, 0, 99, 0, 0, 1, 0}, {{0, kBlock}});
    }
    uint64_t Asked() { return gate->Counters().back().second; }
};

TEST_F(GateTest, LargeAddressesAndLengthsAreAnsweredOrReachTheHostAsTheyAre) {
    // The CDB, blocks of buffers, the answer, and what the host is given.
    const std::tuple<std::string, size_t, const char*, const char*> rules[] = {
        {"88 00 0000000100000063 00000001 00 00", 1, "good", "READ 100000063+1"},
        {"88 00 0000000100000063 00000002 00 00", 2, "5/2100", ""},
        {"88 00 0000000100000064 00000000 00 00", 0, "good", ""},
        {"8A 00 0000000100000065 00000000 00 00", 0, "5/2100", ""},
        {"8A 00 FFFFFFFFFFFFFFFF 00000002 00 00", 2, "5/2100", ""},  // in 64 bits
        {"88 20 FF00000000000000 00000001 00 00", 1, "5/2100", ""},
        {"08 1F 02 03 00 00", 256, "good", "READ 1F0203+100"},
        // A WRITE becomes WRITE (10).
        {"0A 1F 02 03 04 80", 4, "good", "WRITE 1F0203+4"},
        {"AA 08 01020304 00000102 00 40", 258, "good", "WRITE 1020304+102"},
        {"8A 10 00000000FFFFFFFF 00000001 00 40", 2, "good", "WRITE FFFFFFFF+1"},
        {"8A 00 0000000100000000 00000001 00 00", 1, "5/2400", ""},
        {"AA 00 00000000 00010000 00 00", 1, "5/2400", ""},
        {"A8 20 00000000 00000001 00 00", 1, "5/2400", ""},
        {"A8 00 00000000 00000002 00 00", 1, "5/2400", ""},
        // SYNCHRONIZE CACHE: zero blocks reach to the end.
        {"35 02 FFFFFFFF 00 FFFF 00", 0, "5/2100", ""},
        {"35 00 FFFFFFFF 00 0065 00", 1, "good", ""},
        {"91 00 0000000100000064 00000000 00 00", 0, "good", ""},
        {"91 00 0000000100000065 00000000 00 00", 0, "5/2100", ""},
        {"91 02 00000000FFFFFFFF 00000066 00 00", 0, "5/2100", ""},
    };
    log.Reset(-1);
    Open(uint64_t{1} << 32, &host);
    EXPECT_EQ(log.Texts(-1).size(), 0U) << "all can be written";
    Open((uint64_t{1} << 32) + 100, &host);
    EXPECT_EQ(log.Texts(-1).size(), 1U);
    EXPECT_EQ(device.maxTransferBlocks, 2048U);
    for (const auto& [cdb, blocks, answer, given] : rules) {
        SCOPED_TRACE(cdb);
        host.last = "";
        EXPECT_EQ(Sense(Hex(cdb), {{0, blocks * kBlock}}), answer);
        EXPECT_EQ(host.last, given);
    }
    EXPECT_EQ(
        Counted(gate->Counters()),
        ", gate: clipped 1, gate: no WRITE (10) 2, gate: out of range 7"
        ", gate: own TEST UNIT READY 1, gate: passed 5, gate: protection 1"
        ", gate: rewritten 4, gate: short buffers 1, gate: synchronized 2, gate: zero blocks 1");
}

// What the gate makes for the first command of its kind; a bounce buffer isn't lost with it.
TEST_F(GateTest, WithoutMemoryACommandIsBusy) {
    const std::pair<Bytes, Extents> commands[] = {
        {{0x0A, 0, 0, 1, 1, 0}, {{0, kBlock}}},
        {Hex("28 00 00000000 00 0011 00"), Extents(17, {0, kBlock})}};
    for (const auto& [cdb, pieces] : commands) {
        Open(1 << 20, &host);
        EXPECT_EQ(Move(0x28), "good");
        for (size_t i = 0; i < 2 * BouncePool::kMaxBuffers; ++i) {
            const auto ticket = lib.Submit(cdb, pieces);
            RingCommand* command = device.ring.Fetch();
            {
                const heap_probe::Fault fault(i == 1);
                gate->Pass(*command);
                ASSERT_EQ(fault.Failed(), 1U);
            }
            device.ring.RingDoorbell();
            ASSERT_EQ(lib.AnswerOf(ticket)->status, 8);
        }
        EXPECT_EQ(Sense(cdb, pieces), "good");
    }
}

TEST_F(GateTest, UsedUpPoolIsBusyUntilBuffersComeBack) {
    Open(1 << 20, &host);
    const auto read = [](size_t blocks) {
        return Bytes{
            0xA8, 0, 0, 0, 0, 0, 0, uint8_t(blocks >> 16), uint8_t(blocks >> 8), uint8_t(blocks),
            0,    0};
    };
    // Too many pieces; no neighbours to merge, or all of them.
    const auto scattered = [](size_t blocks) {
        Extents pieces(16, {0, blocks * kBlock / 17});
        pieces.push_back({0, blocks * kBlock - 16 * pieces[0].length});
        return pieces;
    };
    Extents adjacent;
    for (size_t i = 0; i < 17; ++i)
        adjacent.insert(adjacent.end(), {{(100 + i) * kBlock, kBlock}, {0, 0}});
    constexpr size_t kAll = BouncePool::kMaxBytes / kBlock;
    host.hold = true;
    for (size_t i = 0; i < BouncePool::kMaxBuffers; ++i)
        lib.Submit(read(17), scattered(17));
    Drain();
    EXPECT_EQ(size_t(host.given), BouncePool::kMaxBuffers);
    EXPECT_EQ(Sense(read(17), scattered(17)), "8");  // BUSY
    EXPECT_EQ(Sense(read(kAll + 1), scattered(kAll + 1)), "5/2400");

    host.ServeOne();
    lib.Submit(read(17), scattered(17));
    lib.Submit(read(17), adjacent);
    Drain();
    host.fails = true;
    memset(lib.ring.Data(), 0xDD, kBlock);
    host.Release();
    EXPECT_TRUE(lib.AnsweredAll());
    EXPECT_EQ(lib.ring.Data()[0], 0xDD) << "what a buffer held is another's";
    EXPECT_EQ(Counted(gate->Counters()),
              ", gate: bounced 65, gate: busy 1, gate: merged 1, gate: more than 16 entries 68"
              ", gate: own TEST UNIT READY 1, gate: passed 66, gate: too long 1");

    // All came back, and what is kept of them makes room.
    host.fails = false;
    host.hold = true;
    lib.Submit(read(kAll / 2), scattered(kAll / 2));
    Drain();
    EXPECT_EQ(Sense(read(kAll / 2 + 1), scattered(kAll / 2 + 1)), "8");
    host.Release();
    EXPECT_TRUE(lib.AnsweredAll());
    EXPECT_EQ(Sense(read(kAll), scattered(kAll)), "good");
}

TEST_F(GateTest, DataTooEarlyIsAnsweredByTheGateWhichAsksNowAndThen) {
    Open(100, nullptr);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Move(std::array{0x28, 0x2A, 0x35}[i % 3]), "2/0401");
    EXPECT_THAT(handler->Counters(), testing::Contains(testing::Pair("pending", 0U)));
    EXPECT_LT(Asked(), 1000U) << "each that fails is logged";

    MoScsiSrvLIOTest::AddLun(device.cfgString, &host);
    Await([&] { return Move(0x28) == "good"; });
    const uint64_t asked = Asked();
    EXPECT_EQ(Move(0x28), "good");
    EXPECT_EQ(Asked(), asked) << "asks no more once it is known";
    Open(100, &host);
    EXPECT_EQ(Sense(Hex("12 00 00 00 14 00"), {{0, 100}}), "good");
    EXPECT_EQ(Move(0x28), "good");
    EXPECT_EQ(Asked(), 0U) << "an INQUIRY has asked";
}
