// The gate's rules, where the random commands of tests/fuzz/gate_fuzz.cpp don't come: large LUNs, a
// host that holds or isn't there, how buffers are reshaped, limits.

#include "adapters/libtcmu/Cdb.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/GateRig.h"

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
    std::map<std::string, uint64_t> Counters() { return Counted(gate->Counters()); }
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
        {"8A 10 00000000FFFFFFFF 00000001 00 40", 1, "good", "WRITE FFFFFFFF+1"},
        {"8A 00 0000000100000000 00000001 00 00", 1, "5/2400", ""},
        {"AA 00 00000000 00010000 00 00", 1, "5/2400", ""},
    };
    Open((uint64_t{1} << 32) + 100, &host);
    for (const auto& [cdb, blocks, answer, given] : rules) {
        SCOPED_TRACE(cdb);
        host.last = "";
        EXPECT_EQ(Sense(Hex(cdb), {{0, blocks * kBlock}}), answer);
        EXPECT_EQ(host.last, given);
    }
}

TEST_F(GateTest, UsedUpPoolIsBusyUntilBuffersComeBack) {
    Open(1 << 20, &host);
    Extents adjacent;
    Extents scattered = {{0, 17 * kBlock - 16}};  // too many, and no neighbours to merge
    Extents endless;                              // more than any pool could ever hold
    for (size_t i = 0; i < 17; ++i) {
        if (i > 0)
            scattered.push_back({17 * kBlock + i * 2, 1});
        adjacent.push_back({(100 + i) * kBlock, kBlock});
        endless.push_back({i, BouncePool::kMaxBytes / 16});
    }
    const Bytes read = Hex("28 00 00000000 00 0011 00");
    host.hold = true;
    for (size_t i = 0; i < BouncePool::kMaxBuffers; ++i)
        lib.Submit(read, scattered);
    Drain();
    EXPECT_EQ(size_t(host.given), BouncePool::kMaxBuffers);
    EXPECT_EQ(Sense(read, scattered), "8");  // BUSY
    EXPECT_EQ(Sense(Hex("A8 00 00000000 00022000 0000"), endless), "5/2400");

    host.ServeOne();
    lib.Submit(read, scattered);
    lib.Submit(read, adjacent);
    Drain();
    host.fails = true;
    memset(lib.ring.Data(), 0xDD, kBlock);
    host.Release();
    EXPECT_TRUE(lib.AnsweredAll());
    EXPECT_EQ(lib.ring.Data()[0], 0xDD) << "nothing that the buffer held";
    host.fails = false;
    EXPECT_EQ(Sense(read, scattered), "good") << "all came back";
    EXPECT_EQ(Counters(), (std::map<std::string, uint64_t>{{"gate: passed", 67},
                                                           {"gate: busy", 1},
                                                           {"gate: too long", 1},
                                                           {"gate: merged", 1},
                                                           {"gate: bounced", 66},
                                                           {"gate: more than 16 entries", 69},
                                                           {"gate: own TEST UNIT READY", 1}}));
}

TEST(BouncePoolTest, IsBoundedInBytesAndGivesEverythingBack) {
    BouncePool pool;
    constexpr size_t kLarge = BouncePool::kMaxBytes - BouncePool::kMaxTransferBytes;
    EXPECT_EQ(pool.Take(BouncePool::kMaxBytes + 1), nullptr);
    void* large = pool.Take(kLarge);
    void* small = pool.Take(1);
    ASSERT_NE(large, nullptr);
    ASSERT_NE(small, nullptr);
    EXPECT_EQ(pool.Take(1), nullptr);
    pool.Return(small, 1);
    pool.Return(large, kLarge);
    void* all = pool.Take(BouncePool::kMaxBytes);  // kept buffers must not stand in its way
    EXPECT_NE(all, nullptr);
    pool.Return(all, BouncePool::kMaxBytes);
    EXPECT_EQ(pool.InUse(), 0U);
}

TEST_F(GateTest, DataTooEarlyIsAnsweredByTheGateWhichAsksNowAndThen) {
    Open(100, nullptr);
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Move(i % 2 == 0 ? 0x28 : 0x2A), "2/0401");
    EXPECT_EQ(handler->Pending(), 0U);
    EXPECT_LT(Counters()["gate: own TEST UNIT READY"], 1000U) << "each that fails is logged";

    MoScsiSrvLIOTest::AddLun(device.cfgString, &host);
    Await([&] { return Move(0x28) == "good"; });
    const uint64_t asked = Counters()["gate: own TEST UNIT READY"];
    EXPECT_EQ(Move(0x28), "good");
    EXPECT_EQ(Counters()["gate: own TEST UNIT READY"], asked) << "asks no more once it is known";
}

TEST_F(GateTest, AnswersStateTheirLengthAndLeakNothing) {
    Open(100, &host);
    memset(lib.ring.Data(), 0xDD, 512);
    const auto answer = Answer({0x12, 0, 0, 0, 20, 0}, {{0, 100}, {200, 100}});
    ASSERT_TRUE(answer.has_value() && answer->status == 0);
    EXPECT_EQ(answer->readLength, 20U);
    EXPECT_EQ(Flat(lib.ring.Data(), {{20, 80}, {200, 100}}), Bytes(180));
    EXPECT_EQ(Move(0x28), "good") << "which is known from the INQUIRY";
    EXPECT_EQ(Counters()["gate: own TEST UNIT READY"], 0U);
}

/// Completes each command before it returns, and spoils its record: nobody may look any more.
struct SpoilingHandler : NullHandler {
    explicit SpoilingHandler(tcmu_device& served) : device(served) {}
    int Handle(tcmulib_cmd* cmd) override {
        if (cmd->cdb[0] == 0x00)
            return TCMU_STATUS_GOOD;
        tcmulib_command_complete(&device, cmd, TCMU_STATUS_GOOD);
        cmd->cdb = nullptr;
        cmd->iovec = nullptr;
        cmd->iov_cnt = 1000;
        cmd->hm_private = last = cmd;
        memcpy(spoiled, cmd, sizeof spoiled);
        return -2;
    }
    tcmu_device& device;
    tcmulib_cmd* last = nullptr;
    char spoiled[sizeof(tcmulib_cmd)];
};

TEST_F(GateTest, ACompletedCommandIsNotTouched) {
    Open(2000, &host);
    SpoilingHandler spoiling(device);
    gate = std::make_unique<CommandGate>(device, spoiling);
    Extents pieces;  // too many, so that the transfer is bounced
    for (size_t i = 0; i < 32; ++i)
        pieces.push_back({i * 100, 64});
    for (const uint8_t opcode : {0x28, 0x2A, 0x0A, 0x12}) {
        EXPECT_EQ(Sense({opcode, 0, 0, 0, 4, 0, 0, 0, 4, 0}, pieces), "good");
        ASSERT_NE(spoiling.last, nullptr);
        EXPECT_EQ(memcmp(spoiling.last, spoiling.spoiled, sizeof spoiling.spoiled), 0);
    }
}

TEST_F(GateTest, StatesLimitsWhenALunIsOpened) {
    const auto errors = [this](uint64_t blocks) {
        log.Reset(-1);
        Open(blocks, &host);
        return log.Texts(-1).size();
    };
    EXPECT_EQ(errors(uint64_t(1) << 32), 0U);
    EXPECT_EQ(device.maxTransferBlocks, 2048U);
    EXPECT_EQ(errors((uint64_t(1) << 32) + 1), 1U);
}
