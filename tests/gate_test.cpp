#include <gtest/gtest.h>

#include <cstring>
#include <map>
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
// no check of place or length, 16 entries, and a data command before the host is known is kept for
// ever.
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
        if (!IsRead(opcode) && !IsWrite(opcode))
            return -1;

        ++seen;
        cdb.assign(cmd->cdb, cmd->cdb + 16);
        readBytes = static_cast<RingCommand*>(cmd)->readBytes;
        if (cmd->iov_cnt > CommandGate::kMaxEntries)
            return tcmu_set_sense_data(cmd->sense_buf, 3, 0x1100);
        if (!known || hold) {
            held.push_back(cmd);
            return known ? -2 : tcmu_set_sense_data(cmd->sense_buf, 2, 0x0401);
        }
        uint8_t* place = storage.data() + tcmu_get_lba(cmd->cdb) * kBlock;
        length = 0;
        for (size_t i = 0; i < cmd->iov_cnt && !storage.empty(); ++i) {
            auto* bytes = static_cast<uint8_t*>(cmd->iovec[i].iov_base);
            const size_t size = cmd->iovec[i].iov_len;
            IsRead(opcode) ? memcpy(bytes, place + length, size)
                           : memcpy(place + length, bytes, size);
            length += size;
        }
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

    bool hostThere = true;
    bool known = false;
    bool hold = false;
    Bytes storage;
    std::vector<tcmulib_cmd*> held;
    int testUnitReady = 0;
    // Of the last data command, as it arrived.
    int seen = 0;
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
    // What the initiator sees as one buffer.
    Bytes Flat(const Extents& pieces) {
        Bytes flat;
        for (const auto& [offset, length] : pieces)
            flat.insert(flat.end(), lib.ring.Data() + offset, lib.ring.Data() + offset + length);
        return flat;
    }
    uint64_t Counter(const std::string& name) {
        const auto counters = gate->Counters();
        return std::map<std::string, uint64_t>(counters.begin(), counters.end()).at(name);
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

TEST_F(GateTest, EachRuleAnswersOrLetsThrough) {
    const std::string same = "88 00 0000000100000063 00000001 00 00";
    const struct {
        std::string cdb;
        size_t buffer;        // bytes
        const char* answer;   // "good" or sense
        std::string reaches;  // the handler's CDB; empty: nothing reaches it
    } rules[] = {
        // The range comes first, in 64 bits.
        {same, 512, "good", same},
        {"88 00 0000000100000063 00000002 00 00", 1024, "5/2100", ""},
        {"88 00 0000000100000064 00000000 00 00", 0, "good", ""},
        {"8A 00 0000000100000065 00000000 00 00", 0, "5/2100", ""},
        {"8A 00 FFFFFFFFFFFFFFFF 00000002 00 00", 1024, "5/2100", ""},
        {"88 20 FF00000000000000 00000001 00 00", 512, "5/2100", ""},
        {"2A 00 00000005 00 0000 00", 0, "good", ""},
        // Protection, DPO and FUA.
        {"28 20 00000000 00 0001 00", 512, "5/2400", ""},
        {"AA 80 00000000 00000001 00 00", 512, "5/2400", ""},
        {"2A E0 00000000 00 0000 00", 0, "5/2400", ""},
        {"2A 18 00000007 00 0001 00", 512, "good", "2A 18 00000007 00 0001 00"},
        // Zero means 256; buffers that are too short.
        {"08 1F 02 03 00 00", 256 * 512, "good", "28 00 001F0203 00 0100 00"},
        {"28 00 00000000 00 0002 00", 1023, "5/2400", ""},
        {"2A 00 00000000 00 0002 00", 1023, "5/2400", ""},
        // A WRITE becomes WRITE (10).
        {"0A 1F 02 03 04 80", 2048, "good", "2A 00 001F0203 00 0004 80"},
        {"0A 00 00 09 00 00", 256 * 512, "good", "2A 00 00000009 00 0100 00"},
        {"AA 08 01020304 00000102 00 40", 258 * 512, "good", "2A 08 01020304 00 0102 40"},
        {"8A 10 00000000FFFFFFFF 00000001 00 40", 512, "good", "2A 10 FFFFFFFF 00 0001 40"},
        {"8A 00 0000000100000000 00000001 00 00", 512, "5/2400", ""},
        {"AA 00 00000000 00010000 00 00", 512, "5/2400", ""},
    };
    Gate((uint64_t{1} << 32) + 100);
    for (const auto& [cdb, buffer, answer, reaches] : rules) {
        SCOPED_TRACE(cdb);
        handler.seen = 0;
        EXPECT_EQ(Sense(Run(Hex(cdb), {{0, buffer}})), answer);
        EXPECT_EQ(handler.seen, reaches.empty() ? 0 : 1);
        if (!reaches.empty()) {
            EXPECT_EQ(Bytes(handler.cdb.begin(), handler.cdb.begin() + Hex(reaches).size()),
                      Hex(reaches));
        }
    }
    EXPECT_TRUE(handler.held.empty());
}

// Pieces of random place and length for a transfer: neighbours in memory or not, never a multiple
// of anything, sometimes empty.
Extents RandomSplit(std::mt19937& random, size_t left, size_t count, bool adjacent) {
    const size_t most = 2 * left / count;
    size_t place = random() % 64;
    Extents pieces;
    while (pieces.size() < count) {
        const bool last = pieces.size() + 1 == count;
        const size_t size = last ? left : std::min(left, random() % (most + 1));
        pieces.push_back({place, size});
        left -= size;
        place += size + (adjacent && random() % 64 != 0 ? 0 : 1 + random() % 100);
    }
    return pieces;
}

TEST_F(GateTest, AnySplitMovesTheSameBytes) {
    constexpr uint64_t kBlocks = 4096;
    Gate(kBlocks);
    std::mt19937 random(20);
    Bytes noise(kBlocks * kBlock);
    std::generate(noise.begin(), noise.end(), [&] { return static_cast<uint8_t>(random()); });
    handler.storage = noise;
    Bytes expected = noise;

    for (int round = 0; round < 300; ++round) {
        SCOPED_TRACE(round);
        const size_t count = round < 40 ? size_t(round) + 1 : 1 + random() % 1024;
        const auto blocks = static_cast<uint16_t>(1 + random() % 256);
        const size_t bytes = blocks * kBlock;
        const auto lba = static_cast<uint32_t>(random() % (kBlocks - blocks));
        const size_t excess = random() % 3 == 0 ? 1 + random() % 2000 : 0;
        const Extents pieces = RandomSplit(random, bytes + excess, count, random() % 2 == 0);
        const bool write = random() % 2 == 0;

        std::copy_n(noise.begin() + random() % 1000, 300000, lib.ring.Data());
        Bytes buffer = Flat(pieces);
        const auto answer = Run(Cdb10(write ? 0x2A : 0x28, lba, blocks), pieces);
        const auto place = expected.begin() + lba * kBlock;
        if (write) {
            std::copy_n(buffer.begin(), bytes, place);
        } else {
            std::copy_n(place, bytes, buffer.begin());
            std::fill(buffer.begin() + bytes, buffer.end(), 0);
            ASSERT_EQ(answer.readLength, bytes);
        }
        ASSERT_EQ(Sense(answer), "good");
        ASSERT_EQ(handler.length, bytes);
        ASSERT_EQ(handler.readBytes, write ? 0 : bytes);
        ASSERT_TRUE(handler.storage == expected);
        ASSERT_TRUE(Flat(pieces) == buffer);
    }
    EXPECT_GT(Counter("gate: merged"), 0U);
    EXPECT_GT(Counter("gate: bounced"), 0U);
    EXPECT_GT(Counter("gate: clipped"), 0U);
    EXPECT_EQ(Counter("gate: more than 16 entries"),
              Counter("gate: merged") + Counter("gate: bounced"));
}

TEST_F(GateTest, UsedUpPoolIsBusyUntilBuffersComeBack) {
    Gate(1 << 20);
    Extents scattered = {{0, 17 * kBlock - 16}};  // too many, and no neighbours to merge
    Extents endless;                              // more than any pool could ever hold
    for (size_t i = 0; i < 17; ++i) {
        if (i > 0)
            scattered.push_back({17 * kBlock + i * 2, 1});
        endless.push_back({i, BouncePool::kMaxBytes / 16});
    }
    const auto write = [&] { return Sense(Run(Cdb10(0x2A, 0, 17), scattered)); };
    handler.hold = true;
    for (size_t i = 0; i < BouncePool::kMaxBuffers; ++i)
        lib.Submit(Cdb10(0x28, 0, 17), scattered);
    Drain();
    ASSERT_EQ(handler.held.size(), BouncePool::kMaxBuffers);
    EXPECT_EQ(write(), "busy");
    EXPECT_EQ(Sense(Run(Hex("A8 00 00000000 00022000 0000"), endless)), "5/2400");

    handler.hold = false;
    handler.Finish(handler.held.back());
    handler.held.pop_back();
    device.ring.RingDoorbell();
    EXPECT_EQ(write(), "good");
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

TEST_F(GateTest, NeitherDataTooEarlyNorAnyOpcodeLeavesAnythingBehind) {
    Gate(100);
    const auto move = [&](uint8_t opcode) { return Sense(Run(Cdb10(opcode, 99, 1), {{0, 512}})); };
    handler.hostThere = false;
    for (int i = 0; i < 1000; ++i)
        ASSERT_EQ(move(i % 2 == 0 ? 0x28 : 0x2A), "2/0401");
    EXPECT_EQ(handler.seen, 0);
    EXPECT_GT(handler.testUnitReady, 0);
    EXPECT_LT(handler.testUnitReady, 1000) << "each one that fails is a line in the log";

    handler.hostThere = true;  // nothing but data commands from now on
    EXPECT_TRUE(FakeDevice::Eventually([&] { return move(0x28) == "good"; }));
    const int asked = handler.testUnitReady;
    EXPECT_EQ(move(0x28), "good");
    EXPECT_EQ(handler.seen, 2);
    EXPECT_EQ(handler.testUnitReady, asked) << "asks no more once it is known";

    // Whatever else comes ends in a status and leaves the unit usable.
    std::mt19937 random(7);
    for (int round = 0; round < 20 * 256; ++round) {
        Bytes cdb(16);
        std::generate(cdb.begin(), cdb.end(), [&] { return static_cast<uint8_t>(random()); });
        cdb[0] = static_cast<uint8_t>(round);
        const auto answer = Run(cdb, {{0, random() % 4096}});
        EXPECT_TRUE(cdb[0] < 0xC0 || Sense(answer) == "5/2000") << int(cdb[0]);
    }
    EXPECT_TRUE(lib.AnsweredAll());
    EXPECT_TRUE(device.ring.Empty());
    EXPECT_EQ(move(0x28), "good");
}

TEST_F(GateTest, AnswersStateTheirLengthAndLeakNothing) {
    Gate(100);
    memset(lib.ring.Data(), 0xDD, 512);
    const auto answer = Run({0x12, 0, 0, 0, 20, 0}, {{0, 100}, {200, 100}});
    EXPECT_EQ(Sense(answer), "good");
    EXPECT_EQ(answer.readLength, 20U);
    EXPECT_EQ(Flat({{20, 80}, {200, 100}}), Bytes(180));
    EXPECT_EQ(lib.ring.Data()[100], 0xDD) << "not this command's";
    for (const Bytes& noData : {Bytes(6), Cdb10(0x28, 7, 0)}) {
        memset(lib.ring.Data(), 0xDD, 512);
        EXPECT_EQ(Sense(Run(noData, {{0, 200}})), "good");
        EXPECT_EQ(Flat({{0, 200}}), Bytes(200));
    }
}

TEST_F(GateTest, StatesLimitsWhenALunIsOpened) {
    Gate(uint64_t(1) << 32);
    EXPECT_TRUE(CapturingLogWriter::Installed().Texts(kErrors).empty());
    EXPECT_EQ(device.maxTransferBlocks, 2048U);
    Gate((uint64_t(1) << 32) + 1);
    EXPECT_EQ(CapturingLogWriter::Installed().Texts(kErrors).size(), 1U);
}

}  // namespace
