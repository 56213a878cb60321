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
        if (answers.size() != 1)
            throw std::runtime_error("not one answer");
        return answers[0];
    }
    Bytes Memory() { return {kernel.Memory(), kernel.Memory() + kernel.Length()}; }

    /// Serves commands until the ring is full of old entries and the next one stands at `offset`.
    void RunUpTo(uint32_t offset) {
        for (int i = 0; i < 40 || kernel.Mailbox().head != offset; i++) {
            ring.Complete(PutAndFetch(kTestUnitReady), 0);
            kernel.Reap();
        }
    }
    template <class Field>
    void Overwrite(size_t at, Field value) {
        std::memcpy(kernel.Ring() + kernel.LastEntry() + at, &value, sizeof(value));
    }
};

struct RingTest : testing::Test, Rig {};

TEST_F(RingTest, ARecordThatIsUsedAgainCarriesNothingOver) {
    RingCommand& first = PutAndFetch(Bytes(16, 0x8A), {{0, 512}, {4096, 100}});
    EXPECT_EQ(first.iovec[1].iov_base, kernel.Data() + 4096);
    EXPECT_EQ(first.dataLength, 612U);
    std::memset(first.sense_buf, 0xEE, sizeof(first.sense_buf));
    first.hm_private = this;
    first.readLength = 5;
    first.iovec = nullptr;
    const uint16_t number = first.cmd_id;
    ring.Complete(first, TCMU_STATUS_CHECK_CONDITION);
    EXPECT_EQ(ReapOne().sense[95], 0xEE);

    RingCommand& second = PutAndFetch({0x1B, 0, 0, 0, 1, 0});
    EXPECT_EQ(second.cmd_id, number);
    const Bytes cdb(second.cdb, second.cdb + 16);
    EXPECT_EQ(cdb, (Bytes{0x1B, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
    EXPECT_EQ(second.iov_cnt, 0U);
    EXPECT_EQ(second.dataLength, 0U);
    EXPECT_EQ(second.hm_private, nullptr);
    EXPECT_FALSE(second.readLength);
    EXPECT_EQ(std::count(second.sense_buf, second.sense_buf + 96, 0), 96);
}

TEST_F(RingTest, AResultBecomesStatusSenseAndLength) {
    struct Case {
        int result;
        std::optional<uint32_t> readLength;
        uint8_t status;
        uint8_t key, asc;
        std::optional<uint32_t> told;
    };
    const std::vector<Case> cases = {
        {0, std::nullopt, 0, 0xAB, 0, std::nullopt},
        {0, 36, 0, 0xAB, 0, 36},
        {TCMU_STATUS_CHECK_CONDITION, 36, 2, 0xAB, 0, std::nullopt},
        {-1, std::nullopt, 2, 0x5, 0x20, std::nullopt},
        {-22, std::nullopt, 2, 0x4, 0x44, std::nullopt},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.result);
        RingCommand& command = PutAndFetch(kTestUnitReady);
        command.sense_buf[2] = 0xAB;
        command.readLength = c.readLength;
        ring.Complete(command, c.result);
        const auto answer = ReapOne();
        EXPECT_EQ(answer.status, c.status);
        EXPECT_EQ(answer.sense[2], c.key);
        EXPECT_EQ(answer.sense[12], c.asc);
        EXPECT_EQ(answer.readLength, c.told);
    }
}

TEST(Ring, LengthIsNotToldToAKernelThatDoesNotTakeIt) {
    Rig rig(0);
    RingCommand& command = rig.PutAndFetch(Read10());
    command.readLength = 1;
    rig.ring.Complete(command, 0);
    EXPECT_FALSE(rig.ReapOne().readLength);
    EXPECT_FALSE(rig.ring.TakesReadLength());
}

TEST(Ring, WhatCannotBeWalkedIsLeftAlone) {
    const std::vector<std::function<void(Rig&)>> damages = {
        [](Rig& r) { r.Overwrite<uint32_t>(0, kCommand); },
        [](Rig& r) { r.Overwrite<uint32_t>(0, 224 | kPad); },  // beyond the head
        [](Rig& r) { r.Overwrite<uint16_t>(4, 1); },           // the first command's number
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

TEST_F(RingTest, ACommandIsAnsweredOnce) {
    RingCommand& first = PutAndFetch(kTestUnitReady);
    RingCommand& second = PutAndFetch(kTestUnitReady);
    ring.Complete(first, 0);
    ring.Complete(first, 0);
    EXPECT_EQ(kernel.Reap().size(), 1U);
    EXPECT_EQ(ring.InFlight(), 1U);
    EXPECT_EQ(ring.GetStats().completedTwice, 1U);
    ring.Complete(second, 0);
    EXPECT_EQ(kernel.Reap().size(), 1U);
}

TEST_F(RingTest, ANewServerGoesOnWhereTheLastOneEnded) {
    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    CommandRing next(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
    EXPECT_EQ(next.Fetch(), nullptr);
    kernel.Put(Read10(9), {});
    RingCommand* command = next.Fetch();
    ASSERT_NE(command, nullptr);
    EXPECT_EQ(command->cdb[5], 9);
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
    const Bytes write = {0x2A, 0, 0, 0, 0, 0, 0, 0, 128, 0};
    const std::vector<std::pair<Bytes, size_t>> cases = {
        {Read10(), Doorbell::kMostReadBytes / 65536}, {write, Doorbell::kMostAnswers}};
    for (const auto& [cdb, bound] : cases) {
        ring.BeginDrain();
        for (size_t i = 1; i <= bound + 1; i++) {
            ring.Complete(PutAndFetch(cdb, {{0, 65536}}), 0);
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
    auto cycle = [&] {
        std::vector<RingCommand*> commands;
        commands.reserve(8);
        for (int i = 0; i < 8; i++)
            kernel.Put(Read10(), {{0, 4096}, {8192, 4096}, {4096, 4096}, {20480, 4096}});
        const size_t before = heap_probe::Allocations();
        while (RingCommand* command = ring.Fetch())
            commands.push_back(command);
        for (RingCommand* command : commands)
            ring.Complete(*command, 0);
        ring.RingDoorbell();
        const size_t made = heap_probe::Allocations() - before;
        EXPECT_EQ(kernel.Reap().size(), 8U);
        return made;
    };
    cycle();
    for (int i = 0; i < 100; i++)
        EXPECT_EQ(cycle(), 0U);
}

struct Sent {
    Bytes cdb;
    std::vector<KernelRing::Extent> data;
};

void ExpectSame(const RingCommand& got, Sent sent, uint8_t* data) {
    sent.cdb.resize(RingCommand::kMaxCdb);
    EXPECT_EQ(Bytes(got.cdb, got.cdb + RingCommand::kMaxCdb), sent.cdb);
    ASSERT_EQ(got.iov_cnt, sent.data.size());
    size_t total = 0;
    for (size_t i = 0; i < got.iov_cnt; i++) {
        EXPECT_EQ(got.iovec[i].iov_base, data + sent.data[i].offset);
        EXPECT_EQ(got.iovec[i].iov_len, sent.data[i].length);
        total += sent.data[i].length;
    }
    EXPECT_EQ(got.dataLength, total);
}

TEST(RingTraffic, RandomOrderAroundTheEndKeepsEveryCommandItsAnswer) {
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](size_t bound) { return random() % bound; };
        KernelRing kernel(static_cast<uint32_t>(1200 + 8 * below(300)));
        CommandRing ring(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
        std::map<uint16_t, Sent> sent;
        std::vector<RingCommand*> held;
        for (int step = 0; step < 2000; step++) {
            if (below(2) == 0) {
                Sent next{Bytes(RingCommand::kMaxCdb), {}};
                std::generate(next.cdb.begin(), next.cdb.end(), std::ref(random));
                if (below(8) == 0)
                    next.cdb[0] = kVariableLengthCdb;
                next.cdb.resize(std::min(CdbLength(next.cdb.data()), RingCommand::kMaxCdb));
                for (size_t left = below(4) == 0 ? below(24) : below(4); left > 0; left--)
                    next.data.push_back({below(60000), below(5000)});
                if (const auto number = kernel.Put(next.cdb, next.data))
                    sent[*number] = next;
            } else if (RingCommand* command = below(3) == 0 ? nullptr : ring.Fetch()) {
                ExpectSame(*command, sent.at(command->cmd_id), kernel.Data());
                held.push_back(command);
            } else if (!held.empty()) {
                std::swap(held[below(held.size())], held.back());
                RingCommand& command = *held.back();
                held.pop_back();
                command.sense_buf[0] = sent.at(command.cmd_id).cdb[1];
                ring.Complete(command, TCMU_STATUS_CHECK_CONDITION);
                for (const auto& answer : kernel.Reap())
                    EXPECT_EQ(answer.sense[0], sent.at(answer.number).cdb[1]);
            }
            ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
            ASSERT_EQ(ring.InFlight(), held.size());
        }
        EXPECT_EQ(ring.Broken(), nullptr);
    }
}

}  // namespace
