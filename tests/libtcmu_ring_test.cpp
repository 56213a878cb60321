#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "adapters/libtcmu/CommandRing.h"
#include "tests/support/HeapProbe.h"
#include "tests/support/KernelRing.h"

using namespace ringlayout;
using Bytes = std::vector<uint8_t>;

namespace {

/// Takes the place of the next doorbell when set.
std::function<ssize_t()> g_doorbell;

}  // namespace

extern "C" ssize_t __real_write(int fd, const void* bytes, size_t count);
extern "C" ssize_t __wrap_write(int fd, const void* bytes, size_t count) {
    if (g_doorbell)
        return std::exchange(g_doorbell, nullptr)();
    return __real_write(fd, bytes, count);
}

namespace {

const Bytes kTestUnitReady(6);

Bytes Read10(uint8_t tag = 0) {
    return {0x28, 0, 0, 0, 0, tag, 0, 0, 8, 0};
}

struct Rig {
    KernelRing kernel;
    CommandRing ring{kernel.Memory(), kernel.Length(), kernel.DoorbellFd()};

    explicit Rig(uint16_t flags = kFlagReadLength, uint32_t ringSize = 4096)
        : kernel(ringSize, 65536, flags) {}

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
        {0x28, std::nullopt, 0x28, 0xAB, 0, std::nullopt},  // TASK SET FULL
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

TEST_F(RingTest, ABadEntryIsAnsweredAndTheNextCommandServed) {
    constexpr size_t kCdbOffset = offsetof(Request, cdbOffset);
    const size_t end = kernel.Length();
    const std::vector<std::function<void()>> damages = {
        [&] {  // there is room for 4; what follows would pass
            Overwrite<uint32_t>(offsetof(Request, entries), 5);
            Overwrite(sizeof(Request), std::array<uint8_t, 64>{});
        },
        [&] { Overwrite<uint32_t>(offsetof(Request, entries), UINT32_MAX); },
        [&] { Overwrite<uint64_t>(kCdbOffset, end); },
        [&] { Overwrite<uint64_t>(kCdbOffset, end - 9); },  // ten bytes wanted
        [&] { Overwrite<uint64_t>(kCdbOffset, UINT64_MAX - 2); },
        [&] {  // a variable-length CDB whose length stands outside
            kernel.Memory()[end - 7] = 0x7F;
            Overwrite<uint64_t>(kCdbOffset, end - 7);
        },
        [&] { Overwrite<uint64_t>(sizeof(Request), end - 511); },  // address of 512 bytes
        [&] { Overwrite<uint64_t>(sizeof(Request), UINT64_MAX - 255); },
        [&] { Overwrite<uint64_t>(sizeof(Request) + 8, UINT64_MAX); },  // length
    };
    for (size_t i = 0; i < damages.size(); i++) {
        SCOPED_TRACE(i);
        std::memset(kernel.Data(), 0x28, kernel.Length() - (kernel.Data() - kernel.Memory()));
        kernel.Put(Read10(), {{0, 512}});
        damages[i]();
        EXPECT_EQ(ring.Fetch(), nullptr);
        ring.Complete(PutAndFetch(kTestUnitReady), 0);
        const auto answers = kernel.Reap();
        ASSERT_EQ(answers.size(), 2U);
        EXPECT_EQ(answers[0].status, TCMU_STATUS_CHECK_CONDITION);
        EXPECT_EQ(answers[0].sense[2], 0x4);
        EXPECT_EQ(answers[1].status, 0);
    }
    EXPECT_EQ(ring.GetStats().badEntries, damages.size());
    EXPECT_EQ(ring.Broken(), nullptr);
}

TEST(Ring, WhatCannotBeWalkedIsLeftAlone) {
    const std::vector<std::function<void(Rig&)>> damages = {
        [](Rig& r) { r.Overwrite<uint32_t>(0, kCommand); },
        [](Rig& r) { r.Overwrite<uint32_t>(0, 104 | kCommand); },  // an answer wouldn't fit
        [](Rig& r) { r.Overwrite<uint32_t>(0, 4096 | kPad); },
        [](Rig& r) { r.Overwrite<uint32_t>(0, 224 | kPad); },  // beyond the head
        [](Rig& r) { r.Overwrite<uint16_t>(4, 1); },           // the first command's number
        [](Rig& r) { r.kernel.Mailbox().head = 4096; },
        [](Rig& r) { r.kernel.Mailbox().head -= 1; },
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

TEST_F(RingTest, AnEntryAcrossTheEndOfTheRingIsRefused) {
    RunUpTo(4032);
    kernel.Put(kTestUnitReady, {});  // behind 64 bytes of padding
    kernel.Put(kTestUnitReady, {});
    const uint32_t padding = (64 + 112) | kPad;
    std::memcpy(kernel.Ring() + 4032, &padding, sizeof(padding));
    EXPECT_EQ(ring.Fetch(), nullptr);
    EXPECT_NE(ring.Broken(), nullptr);
}

TEST(Ring, ACompletionSeesByItselfThatItMustNotWrite) {
    for (const uint32_t tail : {0, 112}) {
        Rig rig;
        RingCommand& command = rig.PutAndFetch(kTestUnitReady);
        rig.kernel.Mailbox().tail = tail;  // 112: somebody else was here
        if (tail == 0)
            rig.Overwrite<uint32_t>(0, 0);
        const Bytes before = rig.Memory();
        rig.ring.Complete(command, 0);
        EXPECT_NE(rig.ring.Broken(), nullptr);
        EXPECT_EQ(before, rig.Memory());
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

TEST(Ring, AMailboxThatPointsElsewhereIsRefused) {
    const std::vector<std::function<void(Mailbox&)>> damages = {
        [](Mailbox& m) { m.version = 1; },          [](Mailbox& m) { m.ringOffset = 32; },
        [](Mailbox& m) { m.ringOffset = 1 << 30; }, [](Mailbox& m) { m.ringSize = UINT32_MAX - 7; },
        [](Mailbox& m) { m.ringSize = 104; },       [](Mailbox& m) { m.ringSize = 4092; },
        [](Mailbox& m) { m.tail = 4096; },          [](Mailbox& m) { m.tail = 4; },
    };
    for (size_t i = 0; i < damages.size(); i++) {
        SCOPED_TRACE(i);
        KernelRing kernel;
        damages[i](kernel.Mailbox());
        CommandRing ring(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
        EXPECT_NE(ring.Broken(), nullptr);
        EXPECT_EQ(ring.Fetch(), nullptr);
        EXPECT_TRUE(ring.Empty());
    }
    KernelRing kernel;
    EXPECT_NE(CommandRing(nullptr, 4096, -1).Broken(), nullptr);
    EXPECT_NE(CommandRing(kernel.Memory(), 64, -1).Broken(), nullptr);
}

TEST_F(RingTest, WhatIsNoCommandIsPassedOverOnBothSides) {
    kernel.PutOther(kTaskManagement, 48);
    EXPECT_EQ(ring.Fetch(), nullptr);
    EXPECT_TRUE(ring.Empty()) << "no completion will come to move the tail";

    RingCommand& command = PutAndFetch(kTestUnitReady);
    kernel.PutOther(5, 16);
    const uint32_t unknown = kernel.LastEntry();
    kernel.PutOther(kTaskManagement, 8);
    const uint32_t notice = kernel.LastEntry();
    EXPECT_EQ(ring.Fetch(), nullptr);
    EXPECT_FALSE(ring.Empty());
    EXPECT_EQ(kernel.Ring()[unknown + offsetof(Header, userFlags)], kUserUnknownOperation);
    EXPECT_EQ(kernel.Ring()[notice + offsetof(Header, userFlags)], 0);
    ring.Complete(command, 0);
    EXPECT_TRUE(ring.Empty());
    EXPECT_EQ(kernel.Reap().size(), 1U);
    EXPECT_EQ(ring.GetStats().otherEntries, 3U);
}

TEST_F(RingTest, ADrainTellsTheKernelOnce) {
    ring.EndDrain();
    ring.RingDoorbell();
    EXPECT_EQ(kernel.Doorbells(), 0U) << "nothing to tell";

    ring.BeginDrain();
    for (int i = 0; i < 5; i++) {
        ring.Complete(PutAndFetch(kTestUnitReady), 0);
        ring.RingDoorbell();
    }
    EXPECT_EQ(kernel.Doorbells(), 0U);
    ring.EndDrain();
    EXPECT_EQ(kernel.Doorbells(), 1U);

    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    EXPECT_EQ(kernel.Doorbells(), 0U);
    ring.RingDoorbell();
    EXPECT_EQ(kernel.Doorbells(), 1U);
}

TEST_F(RingTest, ADrainHoldsBackOnlySoMuch) {
    const Bytes write = {0x2A, 0, 0, 0, 0, 0, 0, 0, 128, 0};
    const std::vector<std::pair<Bytes, size_t>> cases = {
        {Read10(), Doorbell::kMostReadBytes / 65536}, {write, Doorbell::kMostAnswers}};
    for (const auto& [cdb, bound] : cases) {
        ring.BeginDrain();
        for (size_t i = 1; i <= bound; i++) {
            ring.Complete(PutAndFetch(cdb, {{0, 65536}}), 0);
            ring.RingDoorbell();
            EXPECT_EQ(kernel.Doorbells(), i == bound ? 1U : 0U) << i;
            kernel.Reap();
        }
        ring.EndDrain();
        EXPECT_EQ(kernel.Doorbells(), 0U);
    }
}

TEST_F(RingTest, WhoComesDuringADoorbellLeavesItToTheOneWhoRings) {
    RingCommand& first = PutAndFetch(kTestUnitReady);
    RingCommand& second = PutAndFetch(kTestUnitReady);
    g_doorbell = [&] {
        ring.Complete(second, 0);
        ring.RingDoorbell();
        EXPECT_EQ(kernel.Doorbells(), 0U);
        return ssize_t{4};
    };
    ring.Complete(first, 0);
    ring.RingDoorbell();
    EXPECT_EQ(kernel.Doorbells(), 1U);
    EXPECT_EQ(ring.GetStats().doorbells, 2U);
}

TEST_F(RingTest, ADoorbellIsRepeatedAfterASignalAndItsFailureCounted) {
    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    g_doorbell = [] {
        errno = EINTR;
        return ssize_t{-1};
    };
    ring.RingDoorbell();
    EXPECT_EQ(kernel.Doorbells(), 1U);
    EXPECT_EQ(ring.GetStats().doorbellErrors, 0U);

    ring.Complete(PutAndFetch(kTestUnitReady), 0);
    g_doorbell = [] {
        errno = EIO;
        return ssize_t{-1};
    };
    ring.RingDoorbell();
    EXPECT_EQ(ring.GetStats().doorbellErrors, 1U);
    EXPECT_EQ(kernel.Reap().size(), 2U);
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

/// Random commands.
struct Traffic {
    struct Sent {
        Bytes cdb;
        std::vector<KernelRing::Extent> data;
    };

    explicit Traffic(unsigned seed) : random(seed) {}

    size_t Below(size_t bound) { return random() % bound; }

    Sent Make() {
        static constexpr std::pair<uint8_t, size_t> kKinds[] = {
            {0x08, 6}, {0x2A, 10}, {0xA8, 12}, {0x8A, 16}, {0xC0, 10}, {0x60, 12}, {0x7F, 8}};
        const auto [opcode, length] = kKinds[Below(std::size(kKinds))];
        const size_t additional = opcode == 0x7F ? Below(253) : 0;
        Sent sent;
        sent.cdb.resize(length + additional);
        for (uint8_t& byte : sent.cdb)
            byte = static_cast<uint8_t>(random());
        sent.cdb[0] = opcode;
        if (opcode == 0x7F)
            sent.cdb[7] = static_cast<uint8_t>(additional);
        sent.data.resize(Below(4) == 0 ? Below(24) : Below(4));
        for (auto& extent : sent.data) {
            extent.offset = Below(60000);
            extent.length = Below(5000);
        }
        return sent;
    }

    std::mt19937 random;
};

void ExpectSame(const RingCommand& got, const Traffic::Sent& sent, uint8_t* data) {
    Bytes padded = sent.cdb;
    padded.resize(RingCommand::kMaxCdb);
    EXPECT_EQ(Bytes(got.cdb, got.cdb + RingCommand::kMaxCdb), padded);
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
        Traffic traffic(seed);
        KernelRing kernel(static_cast<uint32_t>(1200 + 8 * traffic.Below(300)));
        CommandRing ring(kernel.Memory(), kernel.Length(), kernel.DoorbellFd());
        std::map<uint16_t, Traffic::Sent> sent;
        std::vector<RingCommand*> held;
        for (int step = 0; step < 2000; step++) {
            if (traffic.Below(2) == 0) {
                const auto next = traffic.Make();
                if (const auto number = kernel.Put(next.cdb, next.data))
                    sent[*number] = next;
            } else if (RingCommand* command = traffic.Below(3) == 0 ? nullptr : ring.Fetch()) {
                ExpectSame(*command, sent.at(command->cmd_id), kernel.Data());
                held.push_back(command);
            } else if (!held.empty()) {
                std::swap(held[traffic.Below(held.size())], held.back());
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

/// Hands commands from the device's thread to the hosts', now and then out of order.
class Hosts {
  public:
    void Give(RingCommand* command) {
        {
            const std::lock_guard guard(m_mutex);
            if (++m_given % 3 == 0)
                m_held.push_front(command);
            else
                m_held.push_back(command);
        }
        m_changed.notify_one();
    }
    /// Returns: null after Stop.
    RingCommand* Take() {
        std::unique_lock lock(m_mutex);
        m_changed.wait(lock, [&] { return m_stopped || !m_held.empty(); });
        if (m_held.empty())
            return nullptr;
        RingCommand* command = m_held.front();
        m_held.pop_front();
        return command;
    }
    void Stop() {
        const std::lock_guard guard(m_mutex);
        m_stopped = true;
        m_changed.notify_all();
    }

  private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::deque<RingCommand*> m_held;
    size_t m_given = 0;
    bool m_stopped = false;
};

TEST(RingTraffic, ConcurrentCompletionsLoseNoAnswerAndNoDoorbell) {
    constexpr size_t kCommands = 20000;
    Rig rig(kFlagReadLength, 3000);
    std::atomic<uint32_t> events{0};
    std::atomic<bool> stop{false};
    Hosts hosts;
    const auto complete = [&](RingCommand& command) {
        command.sense_buf[0] = command.cdb[5];
        rig.ring.Complete(command, TCMU_STATUS_CHECK_CONDITION);
    };

    std::thread device([&] {
        while (!stop) {
            const uint32_t seen = events.load();
            rig.ring.BeginDrain();
            while (RingCommand* command = rig.ring.Fetch()) {
                if (command->cdb[5] % 4 == 0)
                    complete(*command);
                else
                    hosts.Give(command);
            }
            rig.ring.EndDrain();
            events.wait(seen);
        }
    });
    std::array<std::thread, 3> threads;
    for (std::thread& thread : threads) {
        thread = std::thread([&] {
            while (RingCommand* command = hosts.Take()) {
                complete(*command);
                rig.ring.RingDoorbell();
            }
        });
    }
    const auto raiseEvent = [&] {
        events.fetch_add(1);
        events.notify_all();
    };

    std::map<uint16_t, uint8_t> tags;
    size_t put = 0;
    size_t answered = 0;
    while (answered < kCommands && !testing::Test::HasFailure()) {
        const auto tag = static_cast<uint8_t>(put);
        std::optional<uint16_t> number;
        if (put < kCommands)
            number = rig.kernel.Put(Read10(tag), {{0, 4096}});
        if (number) {
            tags[*number] = tag;
            raiseEvent();
            if (++put % 7 != 0)
                continue;
        } else {
            EXPECT_TRUE(rig.kernel.WaitForDoorbell()) << rig.kernel.InFlight() << " in flight";
        }
        for (const auto& answer : rig.kernel.Reap()) {
            EXPECT_EQ(answer.sense[0], tags.at(answer.number));
            answered++;
        }
    }
    stop = true;
    raiseEvent();
    hosts.Stop();
    device.join();
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(answered, kCommands);
    EXPECT_TRUE(rig.ring.Empty());
    EXPECT_EQ(rig.ring.InFlight(), 0U);
}

}  // namespace
