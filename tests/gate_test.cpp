// The command gate, between a ring in plain memory and a handler that is as trusting as the
// plug-in's.

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "adapters/libtcmu/Device.h"
#include "adapters/runner/CommandGate.h"
#include "adapters/runner/DeviceHandler.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeLibtcmuApi.h"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#endif

namespace {

using Bytes = std::vector<uint8_t>;
using Extents = std::vector<KernelRing::Extent>;
constexpr uint64_t kBlock = 512;

uint64_t BigEndian(const uint8_t* at, int size) {
    uint64_t value = 0;
    for (int i = 0; i < size; ++i)
        value = value << 8 | at[i];
    return value;
}

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
        const bool read = opcode == 0x08 || opcode == 0x28 || opcode == 0xA8 || opcode == 0x88;
        const bool write = opcode == 0x0A || opcode == 0x2A || opcode == 0xAA || opcode == 0x8A;
        if (!read && !write)
            return -1;

        ++seen;
        cdb.assign(cmd->cdb, cmd->cdb + 16);
        entries = cmd->iov_cnt;
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
        const int result = fail ? tcmu_set_sense_data(cmd->sense_buf, 3, 0x1100) : 0;
        tcmulib_command_complete(m_device, cmd, result);
#if defined(__SANITIZE_ADDRESS__)
        if (poison)
            __asan_poison_memory_region(cmd, sizeof(RingCommand));
        poisoned = cmd;
#endif
        return -2;
    }

    void Move(tcmulib_cmd& cmd, bool read) {
        const uint64_t offset = tcmu_get_lba(cmd.cdb) * kBlock;
        uint64_t left = kBlock * (read ? tcmu_get_xfer_length(cmd.cdb) : BigEndian(cmd.cdb + 7, 2));
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
    bool fail = false;
    bool poison = false;
    void* poisoned = nullptr;
    Bytes storage;
    std::vector<tcmulib_cmd*> held;
    // The last data command, as it arrived.
    int seen = 0;
    int testUnitReady = 0;
    Bytes cdb;
    size_t entries = 0;
    uint64_t length = 0;
    uint64_t readBytes = 0;

  private:
    tcmu_device* m_device;
};

class GateTest : public testing::Test {
  protected:
    GateTest() { CapturingLogWriter::Installed().Reset(kErrors); }

    CommandGate& Gate(uint64_t blocks) {
        tcmu_set_dev_block_size(&device, kBlock);
        tcmu_set_dev_num_lbas(&device, blocks);
        gate = std::make_unique<CommandGate>(device, handler);
        device.completionHook = [this](RingCommand& command, int& result) {
            gate->Completing(command, result);
        };
        return *gate;
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

Bytes Cdb(std::initializer_list<int> bytes) {
    Bytes cdb;
    for (const int byte : bytes)
        cdb.push_back(static_cast<uint8_t>(byte));
    return cdb;
}

// A CDB of 16 bytes: opcode, block address, blocks.
Bytes Cdb16(uint8_t opcode, uint64_t lba, uint32_t blocks) {
    Bytes cdb(16);
    cdb[0] = opcode;
    for (int i = 0; i < 8; ++i)
        cdb[2 + i] = static_cast<uint8_t>(lba >> (56 - 8 * i));
    for (int i = 0; i < 4; ++i)
        cdb[10 + i] = static_cast<uint8_t>(blocks >> (24 - 8 * i));
    return cdb;
}

Bytes Cdb10(uint8_t opcode, uint32_t lba, uint16_t blocks) {
    return Cdb({opcode, 0, int(lba >> 24), int(lba >> 16 & 255), int(lba >> 8 & 255),
                int(lba & 255), 0, blocks >> 8, blocks & 255, 0});
}

struct Rule {
    const char* what;
    Bytes cdb;
    size_t buffer;       // bytes
    std::string answer;  // "good" or sense
    Bytes reaches;       // the handler's CDB; empty: nothing reaches it
};

class GateRules : public GateTest, public testing::WithParamInterface<Rule> {};

constexpr uint64_t kBlocks = (uint64_t(1) << 32) + 100;
constexpr uint64_t kMaxLba = ~uint64_t(0);

TEST_P(GateRules, Hold) {
    const Rule& rule = GetParam();
    SCOPED_TRACE(rule.what);
    Gate(kBlocks);
    Run({0, 0, 0, 0, 0, 0}, {});
    const auto answer = Run(rule.cdb, {{0, rule.buffer}});
    EXPECT_EQ(Sense(answer), rule.answer);
    EXPECT_EQ(handler.seen, rule.reaches.empty() ? 0 : 1);
    handler.cdb.resize(rule.reaches.size());
    EXPECT_EQ(handler.cdb, rule.reaches);
    EXPECT_TRUE(handler.held.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Lba, GateRules,
    testing::Values(Rule{"the last block", Cdb16(0x88, kBlocks - 1, 1), 512, "good",
                         Cdb16(0x88, kBlocks - 1, 1)},
                    Rule{"end beyond", Cdb16(0x88, kBlocks - 1, 2), 1024, "5/2100", {}},
                    Rule{"at the end", Cdb16(0x8A, kBlocks, 1), 512, "5/2100", {}},
                    Rule{"at the end, no block", Cdb16(0x88, kBlocks, 0), 0, "good", {}},
                    Rule{"beyond the end, no block", Cdb16(0x8A, kBlocks + 1, 0), 0, "5/2100", {}},
                    Rule{"wraps in 64 bits", Cdb16(0x88, kMaxLba, 2), 1024, "5/2100", {}},
                    Rule{"wraps onto block 0", Cdb16(0x8A, kMaxLba - 9, 10), 5120, "5/2100", {}},
                    Rule{"no block within", Cdb10(0x2A, 5, 0), 0, "good", {}},
                    Rule{"no block, with buffers",
                         Cdb({0xA8, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0}),
                         512,
                         "good",
                         {}},
                    Rule{"range before protection",
                         Cdb({0x88, 0x20, 255, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}),
                         512,
                         "5/2100",
                         {}}));

INSTANTIATE_TEST_SUITE_P(
    Fields, GateRules,
    testing::Values(
        Rule{"RDPROTECT", Cdb({0x28, 0x20, 0, 0, 0, 0, 0, 0, 1, 0}), 512, "5/2400", {}},
        Rule{"WRPROTECT", Cdb({0xAA, 0x80, 0, 0, 0, 0, 0, 0, 0, 1, 0, 0}), 512, "5/2400", {}},
        Rule{"protection, no block", Cdb({0x2A, 0xE0, 0, 0, 0, 0, 0, 0, 0, 0}), 0, "5/2400", {}},
        Rule{"DPO and FUA", Cdb({0x2A, 0x18, 0, 0, 0, 7, 0, 0, 1, 0}), 512, "good",
             Cdb({0x2A, 0x18, 0, 0, 0, 7, 0, 0, 1, 0})},
        Rule{"READ (6)", Cdb({0x08, 0x1F, 2, 3, 4, 0}), 2048, "good",
             Cdb({0x08, 0x1F, 2, 3, 4, 0})},
        Rule{"READ (6) of zero", Cdb({0x08, 0x1F, 2, 3, 0, 0}), 256 * 512, "good",
             Cdb10(0x28, 0x1F0203, 256)},
        Rule{"READ (6) of zero, short", Cdb({0x08, 0, 0, 0, 0, 0}), 255 * 512, "5/2400", {}},
        Rule{"READ (16) beyond 2^32", Cdb16(0x88, uint64_t(1) << 32, 1), 512, "good",
             Cdb16(0x88, uint64_t(1) << 32, 1)},
        Rule{"short READ", Cdb10(0x28, 0, 2), 1023, "5/2400", {}},
        Rule{"short WRITE", Cdb10(0x2A, 0, 2), 1023, "5/2400", {}},
        Rule{"READ without buffers", Cdb10(0x28, 0, 1), 0, "5/2400", {}}));

INSTANTIATE_TEST_SUITE_P(
    WriteBecomesWrite10, GateRules,
    testing::Values(
        Rule{"WRITE (6)", Cdb({0x0A, 0x1F, 2, 3, 4, 0x80}), 2048, "good",
             Cdb({0x2A, 0, 0, 0x1F, 2, 3, 0, 0, 4, 0x80})},
        Rule{"WRITE (6) of zero", Cdb({0x0A, 0, 0, 9, 0, 0}), 256 * 512, "good",
             Cdb10(0x2A, 9, 256)},
        Rule{"WRITE (12)", Cdb({0xAA, 0x08, 1, 2, 3, 4, 0, 0, 0x01, 0x02, 0, 0x40}), 258 * 512,
             "good", Cdb({0x2A, 0x08, 1, 2, 3, 4, 0, 1, 2, 0x40})},
        Rule{"WRITE (16)", Cdb({0x8A, 0x10, 0, 0, 0, 0, 255, 255, 255, 255, 0, 0, 0, 1, 0, 0x40}),
             512, "good", Cdb({0x2A, 0x10, 255, 255, 255, 255, 0, 0, 1, 0x40})},
        Rule{"WRITE (16) beyond 2^32", Cdb16(0x8A, uint64_t(1) << 32, 1), 512, "5/2400", {}},
        Rule{"WRITE (12) of 65,536",
             Cdb({0xAA, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}),
             512,
             "5/2400",
             {}}));

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
    Run({0, 0, 0, 0, 0, 0}, {});
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

TEST_F(GateTest, ReadThatFailsGivesNothingBack) {
    Gate(1000);
    Run({0, 0, 0, 0, 0, 0}, {});
    Extents pieces;
    for (size_t i = 0; i < 17; ++i)
        pieces.push_back({i * 1000, 512});
    handler.storage.assign(1000 * kBlock, 0x11);
    handler.fail = true;
    memset(lib.ring.Data(), 0x77, 20000);
    const auto answer = Run(Cdb10(0x28, 0, 17), pieces);
    EXPECT_EQ(Sense(answer), "3/1100");
    EXPECT_FALSE(answer.readLength.has_value());
    EXPECT_EQ(Bytes(lib.ring.Data(), lib.ring.Data() + 20000), Bytes(20000, 0x77));
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
    Run({0, 0, 0, 0, 0, 0}, {});
    handler.hold = true;
    for (size_t i = 0; i < BouncePool::kMaxBuffers; ++i)
        lib.Submit(Cdb10(0x28, 0, 17), Scattered(17));
    Drain();
    ASSERT_EQ(handler.held.size(), BouncePool::kMaxBuffers);
    EXPECT_EQ(Sense(Run(Cdb10(0x2A, 0, 17), Scattered(17))), "busy");

    handler.hold = false;
    EXPECT_EQ(Sense(Run(Cdb10(0x2A, 0, 17), {{0, 17 * kBlock}})), "good") << "needs no buffer";
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
    for (int round = 0; round < 3; ++round) {
        void* large = pool.Take(kLarge);
        void* small = pool.Take(1);
        ASSERT_NE(large, nullptr) << round;
        ASSERT_NE(small, nullptr) << round;
        EXPECT_EQ(pool.Take(1), nullptr) << round;
        pool.Return(small, 1);
        pool.Return(large, kLarge);
        void* all = pool.Take(BouncePool::kMaxBytes);  // kept buffers must not stand in its way
        EXPECT_NE(all, nullptr) << round;
        pool.Return(all, BouncePool::kMaxBytes);
    }
    EXPECT_EQ(pool.InUse(), 0U);
}

TEST_F(GateTest, DataBeforeTheHostIsKnownLeavesNothingBehind) {
    Gate(100);
    handler.hostThere = false;
    EXPECT_EQ(Sense(Run(Cdb10(0x28, 0, 1), {{0, 512}})), "2/0401");
    EXPECT_EQ(Sense(Run({0, 0, 0, 0, 0, 0}, {})), "2/0401");
    EXPECT_EQ(Sense(Run(Cdb10(0x2A, 0, 1), {{0, 512}})), "2/0401");
    EXPECT_EQ(handler.seen, 0);
    EXPECT_EQ(handler.testUnitReady, 3);

    handler.hostThere = true;
    EXPECT_EQ(Sense(Run(Cdb10(0x28, 0, 1), {{0, 512}})), "good");
    EXPECT_EQ(Sense(Run(Cdb10(0x28, 0, 1), {{0, 512}})), "good");
    EXPECT_EQ(handler.seen, 2);
    EXPECT_EQ(handler.testUnitReady, 4) << "asks no more once it is known";
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
    const auto answer = Run(Cdb({0x12, 0, 0, 0, 20, 0}), {{0, 100}, {200, 100}});
    EXPECT_EQ(Sense(answer), "good");
    EXPECT_EQ(answer.readLength, 20U);
    for (const size_t at : {size_t(20), size_t(99), size_t(200), size_t(299)})
        EXPECT_EQ(lib.ring.Data()[at], 0) << at;
    EXPECT_EQ(lib.ring.Data()[100], 0xDD) << "not this command's";
}

TEST_F(GateTest, RecordIsNotTouchedOnceItCompletesLater) {
    Gate(1000);
    Run({0, 0, 0, 0, 0, 0}, {});
    handler.poison = true;  // AddressSanitizer reports any look at it
    for (const size_t entries : {size_t(1), size_t(40)}) {
        Extents pieces;
        for (size_t i = 0; i < entries; ++i)
            pieces.push_back({i * 1000, 512});
        const uint32_t ticket = lib.Submit(Cdb10(0x28, 0, uint16_t(entries)), pieces);
        RingCommand* command = device.ring.Fetch();
        ASSERT_NE(command, nullptr);
        gate->Pass(*command);
#if defined(__SANITIZE_ADDRESS__)
        __asan_unpoison_memory_region(handler.poisoned, sizeof(RingCommand));
#endif
        device.ring.RingDoorbell();
        EXPECT_TRUE(lib.AnswerOf(ticket).has_value());
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
