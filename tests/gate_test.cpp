#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "adapters/libtcmu/Cdb.h"
#include "adapters/libtcmu/Device.h"
#include "adapters/runner/CommandGate.h"
#include "adapters/runner/DeviceHandler.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeLibtcmuApi.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Extents = std::vector<KernelRing::Extent>;
constexpr uint64_t kBlock = 512;

// Serves READ and WRITE of flat storage, by the rules and with the limits of the plug-in's handler:
// no check of place or length, a WRITE's length from bytes 7 and 8, 16 entries, and a data command
// before the host is known is kept for ever.
class TrustingHandler : public DeviceHandler {
  public:
    explicit TrustingHandler(tcmu_device* device) : m_device(device) {}

    int Open() override { return 0; }
    void Close() override {}
    size_t Pending() override { return held.size(); }
    MoStatistics::Counters Counters() override { return {}; }

    int Handle(tcmulib_cmd* cmd) override {
        const uint8_t opcode = cmd->cdb[0];
        if (opcode == 0x00) {
            ++testUnitReady;
            known = known || hostThere;
            return hostThere ? 0 : tcmu_set_sense_data(cmd->sense_buf, 2, 0x0401);
        }
        if (opcode == 0x12)  // INQUIRY
            return tcmu_emulate_inquiry(m_device, cmd->cdb, cmd->iovec, cmd->iov_cnt,
                                        cmd->sense_buf);
        const bool read = IsRead(opcode);
        if (!read && !IsWrite(opcode))
            return -1;

        ++seen;
        cdb.assign(cmd->cdb, cmd->cdb + 16);
        readBytes = static_cast<RingCommand*>(cmd)->readBytes;
        length = 0;
        for (size_t i = 0; i < cmd->iov_cnt; ++i)
            length += cmd->iovec[i].iov_len;
        if (cmd->iov_cnt > CommandGate::kMaxEntries)
            return tcmu_set_sense_data(cmd->sense_buf, 3, 0x1100);
        if (!known || hold) {
            held.push_back(cmd);
            return known ? -2 : tcmu_set_sense_data(cmd->sense_buf, 2, 0x0401);
        }
        if (!storage.empty())
            Move(*cmd, read);
        return Finish(cmd);
    }

    // Completes at once; then nobody may look at the record any more.
    int Finish(tcmulib_cmd* cmd) {
        tcmulib_command_complete(m_device, cmd, 0);
        cmd->iovec = nullptr;
        cmd->iov_cnt = 1000;
        cmd->hm_private = cmd;
        return -2;
    }

    void Move(tcmulib_cmd& cmd, bool read) {
        const uint64_t offset = tcmu_get_lba(cmd.cdb) * kBlock;
        uint64_t left = kBlock * (read ? tcmu_get_xfer_length(cmd.cdb) : LoadBe16(cmd.cdb + 7));
        uint8_t* place = storage.data() + offset;
        ASSERT_LE(offset + left, storage.size());
        for (size_t i = 0; i < cmd.iov_cnt && left > 0; ++i) {
            const size_t size = std::min<uint64_t>(left, cmd.iovec[i].iov_len);
            if (read)
                memcpy(cmd.iovec[i].iov_base, place, size);
            else
                memcpy(place, cmd.iovec[i].iov_base, size);
            place += size;
            left -= size;
        }
        EXPECT_EQ(left, 0U);
    }

    bool hostThere = true;
    bool known = false;
    bool hold = false;
    Bytes storage;
    std::vector<tcmulib_cmd*> held;
    // The last data command, as it arrived.
    int seen = 0;
    int testUnitReady = 0;
    Bytes cdb;
    uint64_t length = 0;
    uint64_t readBytes = 0;

  private:
    tcmu_device* m_device;
};

class GateTest : public testing::Test {
  protected:
    GateTest() { CapturingLogWriter::Installed().Reset(kErrors); }

    void Gate(uint64_t blocks) {
        tcmu_set_dev_block_size(&device, kBlock);
        tcmu_set_dev_num_lbas(&device, blocks);
        gate = std::make_unique<CommandGate>(device, handler);
        device.completionHook = [this](RingCommand& command, int& result) {
            gate->Completing(command, result);
        };
    }

    void Drain() {
        device.ring.BeginDrain();
        while (RingCommand* command = device.ring.Fetch())
            gate->Pass(*command);
        device.ring.EndDrain();
    }

    KernelRing::Answer Run(const Bytes& cdb, const Extents& data) {
        const uint32_t ticket = lib.Submit(cdb, data);
        Drain();
        const auto answer = lib.AnswerOf(ticket);
        EXPECT_TRUE(answer.has_value()) << "no answer to opcode " << int(cdb[0]);
        return answer.value_or(KernelRing::Answer{});
    }

    uint64_t Counter(const std::string& name) {
        for (const auto& [counter, value] : gate->Counters())
            if (counter == name)
                return value;
        ADD_FAILURE() << "no counter " << name;
        return 0;
    }

    static constexpr int kErrors = -1;
    FakeLibtcmuApi api;
    FakeDevice lib;
    tcmu_device device{api, lib.Lib()};
    TrustingHandler handler{&device};
    std::unique_ptr<CommandGate> gate;
};

// "3/1100", or "good", "busy".
std::string Sense(const KernelRing::Answer& answer) {
    if (answer.status != 2)
        return answer.status == 0 ? "good" : answer.status == 8 ? "busy" : "?";
    char text[16];
    snprintf(text, sizeof text, "%x/%02x%02x", answer.sense[2], answer.sense[12], answer.sense[13]);
    return text;
}

Bytes Cdb10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
    const auto byte = [](uint32_t value) { return static_cast<uint8_t>(value); };
    return {opcode,    0, byte(lba >> 24),   byte(lba >> 16), byte(lba >> 8),
            byte(lba), 0, byte(blocks >> 8), byte(blocks),    0};
}

struct Rule {
    const char* cdb;
    size_t buffer;             // bytes
    const char* answer;        // "good" or sense
    const char* reaches = "";  // the handler's CDB; empty: nothing reaches it
};

class GateRules : public GateTest, public testing::WithParamInterface<Rule> {};

TEST_P(GateRules, Hold) {
    const Rule& rule = GetParam();
    SCOPED_TRACE(rule.cdb);
    Gate((uint64_t{1} << 32) + 100);
    const auto answer = Run(Hex(rule.cdb), {{0, rule.buffer}});
    EXPECT_EQ(Sense(answer), rule.answer);
    const Bytes reaches = Hex(rule.reaches);
    EXPECT_EQ(handler.seen, reaches.empty() ? 0 : 1);
    handler.cdb.resize(reaches.size());
    EXPECT_EQ(handler.cdb, reaches);
    EXPECT_TRUE(handler.held.empty());
}

constexpr const char* kSame = "88 00 0000000100000063 00000001 00 00";
INSTANTIATE_TEST_SUITE_P(
    Table, GateRules,
    testing::Values(
        // The range comes first, in 64 bits.
        Rule{kSame, 512, "good", kSame},
        Rule{"88 00 0000000100000063 00000002 00 00", 1024, "5/2100"},
        Rule{"88 00 0000000100000064 00000000 00 00", 0, "good"},
        Rule{"8A 00 0000000100000065 00000000 00 00", 0, "5/2100"},
        Rule{"8A 00 FFFFFFFFFFFFFFFF 00000002 00 00", 1024, "5/2100"},
        Rule{"88 20 FF00000000000000 00000001 00 00", 512, "5/2100"},
        Rule{"2A 00 00000005 00 0000 00", 0, "good"},
        // Protection, DPO and FUA.
        Rule{"28 20 00000000 00 0001 00", 512, "5/2400"},
        Rule{"AA 80 00000000 00000001 00 00", 512, "5/2400"},
        Rule{"2A E0 00000000 00 0000 00", 0, "5/2400"},
        Rule{"2A 18 00000007 00 0001 00", 512, "good", "2A 18 00000007 00 0001 00"},
        // Zero means 256; buffers that are too short.
        Rule{"08 1F 02 03 00 00", 256 * 512, "good", "28 00 001F0203 00 0100 00"},
        Rule{"28 00 00000000 00 0002 00", 1023, "5/2400"},
        Rule{"2A 00 00000000 00 0002 00", 1023, "5/2400"},
        // A WRITE becomes WRITE (10).
        Rule{"0A 1F 02 03 04 80", 2048, "good", "2A 00 001F0203 00 0004 80"},
        Rule{"0A 00 00 09 00 00", 256 * 512, "good", "2A 00 00000009 00 0100 00"},
        Rule{"AA 08 01020304 00000102 00 40", 258 * 512, "good", "2A 08 01020304 00 0102 40"},
        Rule{"8A 10 00000000FFFFFFFF 00000001 00 40", 512, "good", "2A 10 FFFFFFFF 00 0001 40"},
        Rule{"8A 00 0000000100000000 00000001 00 00", 512, "5/2400"},
        Rule{"AA 00 00000000 00010000 00 00", 512, "5/2400"}));

// Pieces of random place and length for a transfer: neighbours in memory or not, never a multiple
// of anything, sometimes empty.
Extents RandomSplit(std::mt19937& random, size_t bytes, size_t count, bool adjacent) {
    std::vector<size_t> cuts = {0, bytes};
    while (cuts.size() < count + 1)
        cuts.push_back(random() % (bytes + 1));
    std::sort(cuts.begin(), cuts.end());
    Extents pieces;
    size_t place = random() % 64;
    for (size_t i = 0; i + 1 < cuts.size(); ++i) {
        const size_t size = cuts[i + 1] - cuts[i];
        pieces.push_back({place, size});
        place += size + (adjacent && random() % 64 != 0 ? 0 : 1 + random() % 100);
    }
    return pieces;
}

TEST_F(GateTest, AnySplitMovesTheSameBytes) {
    constexpr uint64_t kBlocks = 4096;
    Gate(kBlocks);
    std::mt19937 random(20);
    handler.storage.resize(kBlocks * kBlock);
    for (uint8_t& byte : handler.storage)
        byte = static_cast<uint8_t>(random());
    Bytes expected = handler.storage;

    for (int round = 0; round < 300; ++round) {
        const size_t count = round < 40 ? size_t(round) + 1 : 1 + random() % 1024;
        const uint16_t blocks = static_cast<uint16_t>(1 + random() % 256);
        const size_t bytes = blocks * kBlock;
        const auto lba = static_cast<uint32_t>(random() % (kBlocks - blocks));
        const size_t excess = random() % 3 == 0 ? 1 + random() % 2000 : 0;
        const Extents pieces = RandomSplit(random, bytes + excess, count, random() % 2 == 0);
        const bool write = random() % 2 == 0;
        uint8_t* flat = expected.data() + lba * kBlock;

        size_t at = 0;
        memset(lib.ring.Data(), 0xDD, 300000);
        for (const auto& piece : pieces)
            for (size_t i = 0; write && i < piece.length; ++i, ++at)
                if (at < bytes)
                    flat[at] = lib.ring.Data()[piece.offset + i] = static_cast<uint8_t>(random());

        const auto answer = Run(Cdb10(write ? 0x2A : 0x28, lba, blocks), pieces);
        ASSERT_EQ(Sense(answer), "good") << round;
        ASSERT_EQ(handler.length, bytes) << round;
        ASSERT_EQ(handler.readBytes, write ? 0 : bytes) << round;
        ASSERT_EQ(handler.storage, expected) << round;
        if (write)
            continue;
        ASSERT_EQ(answer.readLength, bytes) << round;
        at = 0;
        for (const auto& piece : pieces)
            for (size_t i = 0; i < piece.length; ++i, ++at)
                ASSERT_EQ(lib.ring.Data()[piece.offset + i], at < bytes ? flat[at] : 0)
                    << "round " << round << " byte " << at;
    }
    EXPECT_GT(Counter("gate: merged"), 0U);
    EXPECT_GT(Counter("gate: bounced"), 0U);
    EXPECT_GT(Counter("gate: clipped"), 0U);
    EXPECT_EQ(Counter("gate: more than 16 entries"),
              Counter("gate: merged") + Counter("gate: bounced"));
}

// Pieces that can't be merged, of the blocks' number.
Extents Scattered(size_t blocks) {
    Extents pieces;
    for (size_t i = 0; i < 17; ++i)
        pieces.push_back({i == 0 ? 0 : blocks * kBlock + i * 2, i == 0 ? blocks * kBlock - 16 : 1});
    return pieces;
}

TEST_F(GateTest, UsedUpPoolIsBusyUntilBuffersComeBack) {
    Gate(1 << 20);
    handler.hold = true;
    for (size_t i = 0; i < BouncePool::kMaxBuffers; ++i)
        lib.Submit(Cdb10(0x28, 0, 17), Scattered(17));
    Drain();
    ASSERT_EQ(handler.held.size(), BouncePool::kMaxBuffers);
    EXPECT_EQ(Sense(Run(Cdb10(0x2A, 0, 17), Scattered(17))), "busy");
    Extents endless;  // more than any pool could ever hold
    for (size_t i = 0; i < 17; ++i)
        endless.push_back({i, BouncePool::kMaxBytes / 16});
    EXPECT_EQ(Sense(Run({0xA8, 0, 0, 0, 0, 0, 0, 2, 0x20, 0, 0, 0}, endless)), "5/2400");

    handler.hold = false;
    handler.Finish(handler.held.back());
    device.ring.RingDoorbell();
    EXPECT_EQ(Sense(Run(Cdb10(0x2A, 0, 17), Scattered(17))), "good");

    handler.held.pop_back();
    for (tcmulib_cmd* command : handler.held)
        handler.Finish(command);
    device.ring.RingDoorbell();
    EXPECT_TRUE(lib.AnsweredAll());
}

TEST(BouncePoolTest, IsBoundedInBytesAndGivesEverythingBack) {
    BouncePool pool;
    constexpr size_t kLarge = BouncePool::kMaxBytes - BouncePool::kCommonBytes;
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

TEST_F(GateTest, DataBeforeTheHostIsKnownLeavesNothingBehind) {
    Gate(100);
    handler.hostThere = false;
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(Sense(Run(Cdb10(i % 2 == 0 ? 0x28 : 0x2A, 0, 1), {{0, 512}})), "2/0401");
    EXPECT_EQ(handler.seen, 0);
    EXPECT_GT(handler.testUnitReady, 0);
    EXPECT_LT(handler.testUnitReady, 1000) << "each one that fails is a line in the log";

    handler.hostThere = true;  // nothing but data commands from now on
    EXPECT_TRUE(FakeDevice::Eventually([&] {
        return Sense(Run(Cdb10(0x28, 0, 1), {{0, 512}})) == "good";
    }));
    const int asked = handler.testUnitReady;
    EXPECT_EQ(Sense(Run(Cdb10(0x28, 0, 1), {{0, 512}})), "good");
    EXPECT_EQ(handler.seen, 2);
    EXPECT_EQ(handler.testUnitReady, asked) << "asks no more once it is known";
}

TEST_F(GateTest, EveryOpcodeEndsInAStatusAndLeavesTheUnitUsable) {
    Gate(100);
    std::mt19937 random(7);
    for (int round = 0; round < 20; ++round)
        for (int opcode = 0; opcode < 256; ++opcode) {
            Bytes cdb(16);
            for (uint8_t& byte : cdb)
                byte = static_cast<uint8_t>(random());
            cdb[0] = static_cast<uint8_t>(opcode);
            const auto answer = Run(cdb, {{0, random() % 4096}});
            EXPECT_TRUE(opcode < 0xC0 || Sense(answer) == "5/2000") << opcode;
        }
    EXPECT_TRUE(lib.AnsweredAll());
    EXPECT_TRUE(device.ring.Empty());
    EXPECT_EQ(Sense(Run(Cdb10(0x28, 99, 1), {{0, 512}})), "good");
}

TEST_F(GateTest, AnswersStateTheirLengthAndLeakNothing) {
    Gate(100);
    memset(lib.ring.Data(), 0xDD, 512);
    const auto answer = Run({0x12, 0, 0, 0, 20, 0}, {{0, 100}, {200, 100}});
    EXPECT_EQ(Sense(answer), "good");
    EXPECT_EQ(answer.readLength, 20U);
    for (const size_t at : {size_t(20), size_t(99), size_t(200), size_t(299)})
        EXPECT_EQ(lib.ring.Data()[at], 0) << at;
    EXPECT_EQ(lib.ring.Data()[100], 0xDD) << "not this command's";
    Run({0, 0, 0, 0, 0, 0}, {{0, 200}});  // an answer without data
    EXPECT_EQ(Bytes(lib.ring.Data(), lib.ring.Data() + 200), Bytes(200));
}

TEST_F(GateTest, StatesLimitsWhenALunIsOpened) {
    Gate(uint64_t(1) << 32);
    EXPECT_TRUE(CapturingLogWriter::Installed().Texts(kErrors).empty());
    EXPECT_EQ(device.maxTransferBlocks, 2048U);
    Gate((uint64_t(1) << 32) + 1);
    EXPECT_EQ(CapturingLogWriter::Installed().Texts(kErrors).size(), 1U);
}

}  // namespace
