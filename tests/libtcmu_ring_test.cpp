#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <functional>
#include <random>

#include "adapters/libtcmu/Cdb.h"
#include "adapters/libtcmu/CommandRing.h"
#include "tests/support/HeapProbe.h"
#include "tests/support/KernelRing.h"

using namespace ringlayout;
using Bytes = std::vector<uint8_t>;

namespace {

const Bytes kTestUnitReady(6);

Bytes Read10(uint8_t tag = 0) {
    return {0x28, 0, 0, 0, 0, tag, 0, 0, 8, 0};
}

struct Rig {
    KernelRing kernel;
    CommandRing ring{kernel.Memory(), kernel.Length(), kernel.DoorbellFd()};

    explicit Rig(uint16_t flags = kFlagReadLength) : kernel(4096, 65536, flags) {}

    RingCommand& PutAndFetch(const Bytes& cdb, const std::vector<KernelRing::Extent>& data = {}) {
        EXPECT_TRUE(kernel.Put(cdb, data));
        RingCommand* command = ring.Fetch();
        if (command == nullptr)
            throw std::runtime_error("nothing to fetch");
        return *command;
    }
    KernelRing::Answer ReapOne() {
        const auto answers = kernel.Reap();
        EXPECT_EQ(answers.size(), 1U);
        return answers.at(0);
    }
    Bytes Memory() { return {kernel.Memory(), kernel.Memory() + kernel.Length()}; }

    /// Serves commands until the ring is full of old entries and the next one stands at `offset`.
    void RunUpTo(uint32_t offset) {
        for (int i = 0; i < 40 || kernel.Mailbox().head != offset; i++) {
            ring.Complete(PutAndFetch(kTestUnitReady), 0);
            kernel.Reap();
        }
    }
    /// In what was put last.
    void Overwrite(size_t at, uint64_t value, size_t width) {
        std::memcpy(kernel.Ring() + kernel.LastEntry() + at, &value, width);
    }
};

struct RingTest : testing::Test, Rig {};

TEST(Ring, AResultBecomesStatusSenseAndLength) {
    using Length = std::optional<uint32_t>;
    const struct {
        uint16_t flags;
        int result;
        Length readLength;
        uint8_t status, key, asc;
        Length told;
    } cases[] = {
        {kFlagReadLength, 0, Length(), 0, 0xAB, 0, Length()},
        {kFlagReadLength, 0, 36, 0, 0xAB, 0, 36},
        {0, 0, 36, 0, 0xAB, 0, Length()},  // a kernel that doesn't take it
        {kFlagReadLength, TCMU_STATUS_CHECK_CONDITION, 36, 2, 0xAB, 0, Length()},
        {kFlagReadLength, -1, Length(), 2, 0x5, 0x20, Length()},
        {kFlagReadLength, -22, Length(), 2, 0x4, 0x44, Length()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.result);
        Rig rig(c.flags);
        EXPECT_EQ(rig.ring.TakesReadLength(), c.flags != 0);
        RingCommand& command = rig.PutAndFetch(kTestUnitReady);
        command.sense_buf[2] = 0xAB;
        command.readLength = c.readLength;
        rig.ring.Complete(command, c.result);
        const auto answer = rig.ReapOne();
        EXPECT_EQ(answer.status, c.status);
        EXPECT_EQ(answer.sense[2], c.key);
        EXPECT_EQ(answer.sense[12], c.asc);
        EXPECT_EQ(answer.readLength, c.told);
    }
}

TEST(Ring, WhatCannotBeWalkedIsLeftAlone) {
    const std::vector<std::function<void(Rig&)>> damages = {
        [](Rig& r) { r.Overwrite(0, kCommand, 4); },
        [](Rig& r) { r.Overwrite(0, 224 | kPad, 4); },  // beyond the head
        [](Rig& r) { r.Overwrite(4, 1, 2); },           // the first command's number
        [](Rig& r) { r.kernel.Mailbox().head = 4096; },
        [](Rig& r) { r.kernel.Mailbox().tail = 8; },  // reset by somebody else
    };
    for (size_t i = 0; i < damages.size(); i++) {
        SCOPED_TRACE(i);
        Rig rig;
        rig.RunUpTo(112);
        RingCommand& command = rig.PutAndFetch(kTestUnitReady);
        rig.kernel.Put(kTestUnitReady, {});
        damages[i](rig);
        rig.ring.BeginDrain();
        EXPECT_EQ(rig.ring.Fetch(), nullptr);
        rig.ring.EndDrain();
        EXPECT_NE(rig.ring.Broken(), nullptr);

        const Bytes before = rig.Memory();
        rig.ring.Complete(command, 0);
        rig.ring.RingDoorbell();
        EXPECT_EQ(before, rig.Memory());
        EXPECT_EQ(rig.ring.InFlight(), 0U);
    }
}

TEST_F(RingTest, ABadEntryIsAnsweredAndTheNextCommandServed) {
    const size_t end = kernel.Length();
    kernel.Memory()[end - 7] = kVariableLengthCdb;  // its length would stand outside
    const struct {
        size_t at;
        uint64_t value;
        size_t width;
    } damages[] = {
        {offsetof(Request, entries), UINT32_MAX, 4},
        {offsetof(Request, cdbOffset), end, 8},
        {offsetof(Request, cdbOffset), end - 5, 8},  // six bytes wanted
        {offsetof(Request, cdbOffset), end - 7, 8},
        {offsetof(Request, cdbOffset), UINT64_MAX - 2, 8},
        {sizeof(Request), end - 511, 8},  // address of 512 bytes
        {sizeof(Request), UINT64_MAX - 255, 8},
        {sizeof(Request) + 8, UINT64_MAX, 8},  // length
    };
    for (const auto& [at, value, width] : damages) {
        SCOPED_TRACE(testing::Message() << at << ": " << value);
        kernel.Put(Read10(), {{0, 512}});
        Overwrite(at, value, width);
        EXPECT_EQ(ring.Fetch(), nullptr);
        const auto answer = ReapOne();
        EXPECT_EQ(answer.status, TCMU_STATUS_CHECK_CONDITION);
        EXPECT_EQ(answer.sense[2], 0x4);
    }
    EXPECT_EQ(ring.GetStats().badEntries, std::size(damages));
    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    EXPECT_EQ(ReapOne().status, 0);
}

TEST(Ring, AMailboxThatPointsElsewhereIsRefused) {
    const std::vector<std::function<void(Mailbox&)>> damages = {
        [](Mailbox& m) { m.version = 1; },          [](Mailbox& m) { m.ringOffset = 32; },
        [](Mailbox& m) { m.ringOffset = 1 << 30; }, [](Mailbox& m) { m.ringSize = UINT32_MAX - 7; },
        [](Mailbox& m) { m.ringSize = 104; },       [](Mailbox& m) { m.ringSize = 4092; },
        [](Mailbox& m) { m.tail = 4096; },          [](Mailbox& m) { m.tail = 4; },
    };
    for (size_t i = 0; i < damages.size(); i++) {
        KernelRing kernel;
        damages[i](kernel.Mailbox());
        CommandRing ring(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
        EXPECT_NE(ring.Broken(), nullptr) << i;
        EXPECT_EQ(ring.Fetch(), nullptr);
    }
    EXPECT_NE(CommandRing(nullptr, 4096, -1).Broken(), nullptr);
}

TEST_F(RingTest, ACommandIsAnsweredOnce) {
    RingCommand& first = PutAndFetch(kTestUnitReady);
    RingCommand& second = PutAndFetch(kTestUnitReady);
    ring.Complete(first, 0);
    ring.Complete(first, 0);
    ReapOne();
    EXPECT_EQ(ring.InFlight(), 1U);
    EXPECT_EQ(ring.GetStats().completedTwice, 1U);
    ring.Complete(second, 0);
    ReapOne();
}

TEST_F(RingTest, ANewServerGoesOnWhereTheLastOneEnded) {
    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    CommandRing next(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
    EXPECT_EQ(next.Fetch(), nullptr);
    kernel.Put(Read10(9), {});
    RingCommand* command = next.Fetch();
    ASSERT_TRUE(command != nullptr && command->cdb[5] == 9);
    next.Complete(*command, 0);
    EXPECT_EQ(kernel.Reap().size(), 2U);
}

TEST_F(RingTest, WhatIsNoCommandIsPassedOverOnBothSides) {
    kernel.PutOther(kTaskManagement, 48);
    EXPECT_EQ(ring.Fetch(), nullptr);
    EXPECT_TRUE(ring.Empty()) << "no completion will come to move the tail";

    RingCommand& command = PutAndFetch(kTestUnitReady);
    kernel.PutOther(5, 16);
    const uint32_t unknown = kernel.LastEntry();
    EXPECT_EQ(ring.Fetch(), nullptr);
    EXPECT_FALSE(ring.Empty());
    EXPECT_EQ(kernel.Ring()[unknown + offsetof(Header, userFlags)], kUserUnknownOperation);
    ring.Complete(command, 0);
    EXPECT_TRUE(ring.Empty());
    EXPECT_EQ(kernel.Reap().size(), 1U);
    EXPECT_EQ(ring.GetStats().otherEntries, 2U);
}

TEST_F(RingTest, ADrainHoldsBackOnlySoMuch) {
    for (const bool read : {true, false}) {
        const size_t bound = read ? Doorbell::kMostReadBytes / 65536 : Doorbell::kMostAnswers;
        ring.BeginDrain();
        for (size_t i = 1; i <= bound + 1; i++) {
            ring.Complete(PutAndFetch(read ? Read10() : Bytes{0x2A}, {{0, 65536}}), 0);
            ring.RingDoorbell();
            EXPECT_EQ(kernel.Doorbells(), i == bound ? 1U : 0U) << i;
            kernel.Reap();
        }
        ring.EndDrain();
        EXPECT_EQ(kernel.Doorbells(), 1U);
        ring.RingDoorbell();
        EXPECT_EQ(kernel.Doorbells(), 0U) << "nothing to tell";
    }
}

TEST_F(RingTest, WarmCommandsTakeNothingFromTheHeap) {
    std::array<RingCommand*, 8> commands{};
    size_t before = 0;
    for (int round = 0; round < 100; round++) {
        for (size_t i = 0; i < commands.size(); i++)
            kernel.Put(Read10(), {{0, 4096}, {8192, 4096}, {4096, 4096}, {20480, 4096}});
        if (round > 0)
            before = heap_probe::Allocations();
        for (RingCommand*& command : commands)
            command = ring.Fetch();
        for (RingCommand* command : commands)
            ring.Complete(*command, 0);
        ring.RingDoorbell();
        EXPECT_TRUE(round == 0 || heap_probe::Allocations() == before);
        EXPECT_EQ(kernel.Reap().size(), commands.size());
    }
}

TEST(RingTraffic, RandomOrderAroundTheEndKeepsEveryCommandWholeAndItsAnswer) {
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](size_t bound) { return random() % bound; };
        KernelRing kernel(static_cast<uint32_t>(1200 + 8 * below(300)));
        CommandRing ring(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
        using Extents = std::vector<KernelRing::Extent>;
        std::map<uint16_t, std::pair<Bytes, Extents>> sent;
        std::vector<RingCommand*> held;
        for (int step = 0; step < 2000; step++) {
            if (below(2) == 0) {
                Bytes cdb(RingCommand::kMaxCdb);
                std::generate(cdb.begin(), cdb.end(), std::ref(random));
                if (below(8) == 0)
                    cdb[0] = kVariableLengthCdb;
                cdb.resize(std::min(CdbLength(cdb.data()), RingCommand::kMaxCdb));
                Extents data(below(4) == 0 ? below(24) : below(4));
                for (KernelRing::Extent& extent : data)
                    extent = {below(60000), below(5000)};
                if (const auto number = kernel.Put(cdb, data)) {
                    cdb.resize(RingCommand::kMaxCdb);
                    sent[*number] = {cdb, data};
                }
            } else if (RingCommand* command = below(3) == 0 ? nullptr : ring.Fetch()) {
                Extents got;
                size_t total = 0;
                for (size_t i = 0; i < command->iov_cnt; i++) {
                    const auto& [base, length] = command->iovec[i];
                    got.push_back({size_t(static_cast<uint8_t*>(base) - kernel.Data()), length});
                    total += length;
                }
                const Bytes cdb(command->cdb, command->cdb + RingCommand::kMaxCdb);
                EXPECT_TRUE(sent.at(command->cmd_id) == std::pair(cdb, got));
                EXPECT_EQ(command->dataLength, total);
                // Nothing of the record's last use.
                EXPECT_EQ(std::count(command->sense_buf, command->sense_buf + 96, 0), 96);
                EXPECT_FALSE(command->hm_private != nullptr || command->readLength);
                held.push_back(command);
            } else if (!held.empty()) {
                std::swap(held[below(held.size())], held.back());
                RingCommand& command = *held.back();
                held.pop_back();
                std::memset(command.sense_buf, sent.at(command.cmd_id).first[1], 96);
                command.iovec = nullptr;
                command.hm_private = &held;
                command.readLength = 5;
                ring.Complete(command, TCMU_STATUS_CHECK_CONDITION);
                for (const auto& answer : kernel.Reap())
                    for (const size_t at : {0, 95})
                        EXPECT_EQ(answer.sense[at], sent.at(answer.number).first[1]);
            }
            ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
            ASSERT_EQ(ring.InFlight(), held.size());
        }
        EXPECT_EQ(ring.Broken(), nullptr);
    }
}

}  // namespace
