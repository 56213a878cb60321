#include <csignal>
#include <functional>
#include <random>

#include "libtcmu/Cdb.h"
#include "libtcmu/CommandRing.h"
#include "tests/support/HeapProbe.h"
#include "tests/support/KernelRing.h"

using namespace ringlayout;

const Bytes kTestUnitReady(6);

const Bytes kRead10 = {0x28, 0, 0, 0, 0, 0, 0, 0, 8, 0};

struct Rig {
    KernelRing kernel;
    CommandRing ring{kernel.Memory(), kernel.Length(), kernel.DoorbellFd()};

    RingCommand& PutAndFetch(const Bytes& cdb, const Extents& data = {}) {
        EXPECT_TRUE(kernel.Put(cdb, data));
        RingCommand* command = ring.Fetch();
        if (command == nullptr)
            throw std::runtime_error("nothing to fetch");
        return *command;
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

TEST(Ring, WhatCannotBeWalkedIsLeftAlone) {
    const auto reset = [](Rig& r) { r.kernel.Mailbox().tail = 8; };  // by somebody else
    const std::vector<std::function<void(Rig&)>> damages = {
        reset,  // and found by the completion
        reset,
        [](Rig& r) { r.Overwrite(0, kCommand, 4); },
        [](Rig& r) { r.Overwrite(0, 224 | kPad, 4); },  // beyond the head
        [](Rig& r) { r.Overwrite(4, 1, 2); },           // the first command's number
        [](Rig& r) { r.kernel.Mailbox().head = 4096; },
    };
    for (size_t i = 0; i < damages.size(); i++) {
        SCOPED_TRACE(i);
        Rig rig;
        rig.RunUpTo(112);
        RingCommand& command = rig.PutAndFetch(kTestUnitReady);
        rig.kernel.Put(kTestUnitReady, {});
        damages[i](rig);
        if (i > 0) {
            rig.ring.BeginDrain();
            EXPECT_EQ(rig.ring.Fetch(), nullptr);
            rig.ring.EndDrain();
        }
        const Bytes before = rig.Memory();
        rig.ring.Complete(command, 0);
        rig.ring.RingDoorbell();
        EXPECT_EQ(before, rig.Memory());
        EXPECT_EQ(rig.ring.InFlight(), 0U);
        EXPECT_NE(rig.ring.Broken(), nullptr);
    }
}

// From then on the kernel may use a number again. The second command stands in the ring under the
// first one's, and is fetched at the very write.
TEST_F(RingTest, ANumberIsFreeWhenTheTailMoves) {
    static RingTest* test;
    static RingCommand* fetched;
    test = this;
    RingCommand& command = PutAndFetch(kTestUnitReady);
    kernel.Put(kTestUnitReady, {});
    Overwrite(offsetof(Header, number), command.cmd_id, 2);
    signal(SIGSEGV, [](int /*signal*/) {
        test->kernel.AllowMailbox(PROT_READ | PROT_WRITE);
        fetched = test->ring.Fetch();
    });
    kernel.AllowMailbox(PROT_READ);
    ring.Complete(command, 0);
    signal(SIGSEGV, SIG_DFL);
    EXPECT_EQ(fetched, &command);
}

TEST_F(RingTest, ABadEntryIsAnsweredAndTheNextCommandServed) {
    const size_t end = kernel.Length();
    kernel.Memory()[end - 7] = kVariableLengthCdb;  // its length would stand outside
    const std::tuple<size_t, uint64_t, size_t> damages[] = {
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
        kernel.Put(kRead10, {{0, 512}});
        Overwrite(at, value, width);
        EXPECT_EQ(ring.Fetch(), nullptr);
        const auto answer = kernel.Reap().at(0);
        EXPECT_EQ(answer.status, TCMU_STATUS_CHECK_CONDITION);
        EXPECT_EQ(answer.sense[2], 0x4);
    }
    EXPECT_EQ(ring.GetStats().badEntries, std::size(damages));
    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    EXPECT_EQ(kernel.Reap().at(0).status, 0);
}

// Of the three that the first command of many entries makes.
TEST(Ring, WithoutMemoryACommandIsBusyAndTheNextOneServed) {
    for (size_t nth = 0; nth < 3; nth++) {
        SCOPED_TRACE(nth);
        Rig rig;
        rig.kernel.Put(kRead10, Extents(20, {0, 512}));
        rig.kernel.Put(kTestUnitReady, {});
        RingCommand* next = nullptr;
        {
            const heap_probe::Fault fault(nth);
            next = rig.ring.Fetch();
            EXPECT_EQ(fault.Failed(), 1U);
        }
        ASSERT_NE(next, nullptr);
        EXPECT_EQ(next->cdb[0], 0);
        EXPECT_EQ(rig.kernel.Reap().at(0).status, 8);
        rig.ring.Complete(*next, 0);
        rig.ring.Complete(rig.PutAndFetch(kRead10, Extents(20, {0, 512})), 0);
        for (const auto& answer : rig.kernel.Reap())
            EXPECT_EQ(answer.status, 0);
        EXPECT_EQ(rig.ring.GetStats().withoutMemory, 1U);
    }
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
    ring.Complete(command, 0);  // a host's mistake
    EXPECT_EQ(ring.GetStats().completedTwice, 1U);
    EXPECT_EQ(ring.InFlight(), 0U);
    EXPECT_TRUE(ring.Empty());
    EXPECT_EQ(kernel.Reap().size(), 1U);
    EXPECT_EQ(ring.GetStats().otherEntries, 2U);
}

TEST_F(RingTest, ADrainHoldsBackOnlySoMuch) {
    for (const bool read : {true, false}) {
        const size_t bound = read ? Doorbell::kMostReadBytes / 65536 : Doorbell::kMostAnswers;
        ring.BeginDrain();
        for (size_t i = 1; i <= bound + 1; i++) {
            ring.Complete(PutAndFetch(read ? kRead10 : Bytes{0x2A}, {{0, 65536}}), 0);
            ring.RingDoorbell();
            EXPECT_EQ(kernel.Doorbells(), i == bound ? 1U : 0U) << i;
            kernel.Reap();
        }
        ring.EndDrain();
        EXPECT_EQ(kernel.Doorbells(), 1U);
        ring.RingDoorbell();
        EXPECT_EQ(kernel.Doorbells(), 0U) << "nothing to tell";
    }
    EXPECT_EQ(ring.GetStats().doorbells, 4U);
    EXPECT_EQ(ring.GetStats().doorbellErrors, 0U);
    CommandRing deaf(kernel.Memory(), kernel.Length(), -1);
    kernel.Put(kTestUnitReady, {});
    deaf.Complete(*deaf.Fetch(), 0);
    deaf.RingDoorbell();
    EXPECT_EQ(deaf.GetStats().doorbellErrors, 1U);
}

TEST(RingTraffic, RandomOrderAroundTheEndKeepsEveryCommandWholeAndItsAnswer) {
    constexpr size_t kLengths[] = {6, 10, 10, 12, 16, 12, 10, 10};  // of a CDB, by its group
    using Byte = std::optional<uint8_t>;
    // A result, its status, key and additional sense code; none: as they were set.
    const std::tuple<int, uint8_t, Byte, Byte> outcomes[] = {
        {0, 0, {}, {}},
        {TCMU_STATUS_CHECK_CONDITION, 2, {}, {}},
        {-1, 2, 0x5, 0x20},
        {-22, 2, 0x4, 0x44}};
    for (unsigned seed = 1; seed <= 20; seed++) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const auto below = [&](size_t bound) { return random() % bound; };
        const bool takesLength = seed % 4 != 0;
        KernelRing kernel(static_cast<uint32_t>(1200 + 8 * below(300)), 65536,
                          takesLength ? kFlagReadLength : 0);
        std::optional<CommandRing> ring;
        std::vector<RingCommand*> held;
        for (int step = 0; step < 2000; step++) {
            if (!ring || (held.empty() && below(20) == 0)) {
                // A new server goes on where the last one ended.
                ring.emplace(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
            }
            Bytes cdb(RingCommand::kMaxCdb);
            std::generate(cdb.begin(), cdb.end(), std::ref(random));
            if (below(8) == 0)
                cdb[0] = kVariableLengthCdb;
            const size_t length =
                cdb[0] == kVariableLengthCdb ? size_t{8} + cdb[7] : kLengths[cdb[0] >> 5];
            cdb.resize(std::min(length, RingCommand::kMaxCdb));
            Extents data(below(4) == 0 ? below(24) : below(4));
            for (auto& extent : data)
                extent = {below(60000), below(5000)};
            const auto number = below(2) == 0 ? kernel.Put(cdb, data) : std::nullopt;
            if (number) {
                RingCommand& command = *held.emplace_back(ring->Fetch());
                EXPECT_EQ(command.cmd_id, *number);
                Extents got;
                for (size_t i = 0; i < command.iov_cnt; i++) {
                    const auto& [base, bytes] = command.iovec[i];
                    got.push_back({size_t(static_cast<uint8_t*>(base) - kernel.Data()), bytes});
                    command.dataLength -= bytes;
                }
                EXPECT_TRUE(got == data && command.dataLength == 0);
                cdb.resize(RingCommand::kMaxCdb);
                EXPECT_EQ(Bytes(command.cdb, command.cdb + cdb.size()), cdb);
                // Nothing of the record's last use.
                EXPECT_EQ(std::count(command.sense_buf, command.sense_buf + 96, 0), 96);
                EXPECT_FALSE(command.hm_private != nullptr || command.readLength);
            } else if (!held.empty()) {
                std::swap(held[below(held.size())], held.back());
                RingCommand& command = *held.back();
                held.pop_back();
                const uint8_t fill = command.cdb[1];
                std::memset(command.sense_buf, fill, 96);
                command.iovec = nullptr;
                command.hm_private = &held;
                if (step % 2 == 0)
                    command.readLength = step;
                const auto& [result, status, key, asc] = outcomes[below(4)];
                ring->Complete(command, result);
                const auto answers = kernel.Reap();
                ASSERT_EQ(answers.size(), 1U);
                const auto& answer = answers[0];
                EXPECT_EQ(std::pair(answer.number, answer.status),
                          std::pair(command.cmd_id, status));
                EXPECT_EQ((Bytes{answer.sense[2], answer.sense[12], answer.sense[95]}),
                          (Bytes{key.value_or(fill), asc.value_or(fill), key ? uint8_t(0) : fill}));
                EXPECT_EQ(answer.readLength,
                          takesLength && result == 0 ? command.readLength : std::nullopt);
            }
            ASSERT_FALSE(testing::Test::HasFailure()) << "step " << step;
            ASSERT_EQ(ring->InFlight(), held.size());
        }
        EXPECT_EQ(ring->TakesReadLength(), takesLength);
    }
}
