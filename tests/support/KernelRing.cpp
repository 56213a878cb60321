#include "tests/support/KernelRing.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <cstring>

using namespace ringlayout;

namespace {

constexpr uint32_t RoundUp(size_t bytes) {
    return static_cast<uint32_t>((bytes + 7) / 8 * 8);
}

}  // namespace

KernelRing::KernelRing(uint32_t ringSize, size_t dataSize, uint16_t flags)
    : m_memory((kRingOffset + ringSize + dataSize + 63) / 64),
      m_length(kRingOffset + ringSize + dataSize),
      m_dataOffset(kRingOffset + ringSize) {
    Mailbox().version = kVersion;
    Mailbox().flags = flags;
    Mailbox().ringOffset = kRingOffset;
    Mailbox().ringSize = ringSize;
    EXPECT_EQ(pipe2(m_pipe.data(), O_NONBLOCK | O_CLOEXEC), 0);
}

KernelRing::~KernelRing() {
    close(m_pipe[0]);
    close(m_pipe[1]);
}

size_t KernelRing::Doorbells() {
    std::array<uint32_t, 1024> words{};
    const ssize_t bytes = read(m_pipe[0], words.data(), sizeof(words));
    return bytes > 0 ? static_cast<size_t>(bytes) / sizeof(uint32_t) : 0;
}

bool KernelRing::WaitForDoorbell() {
    pollfd doorbell{m_pipe[0], POLLIN, 0};
    return poll(&doorbell, 1, 10'000) == 1 && Doorbells() > 0;
}

/// Makes room for an entry, behind a padding one when it would cross the ring's end.
bool KernelRing::Reserve(uint32_t length) {
    const uint32_t size = Mailbox().ringSize;
    const uint32_t used = (m_head + size - m_cleaned) % size;
    const uint32_t toEnd = size - m_head;
    const uint32_t padding = toEnd < length ? toEnd : 0;
    if (used + padding + length >= size)
        return false;
    if (padding > 0) {
        const Header pad{padding | kPad, 0, 0, 0};
        std::memcpy(Ring() + m_head, &pad, sizeof(pad));
        m_head = 0;
    }
    m_last = m_head;
    std::memset(Ring() + m_last, 0, length);
    return true;
}

void KernelRing::Publish(uint32_t length) {
    m_head = (m_head + length) % Mailbox().ringSize;
    std::atomic_ref(Mailbox().head).store(m_head, std::memory_order_release);
}

std::optional<uint16_t> KernelRing::Put(const std::vector<uint8_t>& cdb,
                                        const std::vector<Extent>& data) {
    const size_t fixed = sizeof(Request) + data.size() * sizeof(iovec);
    const uint32_t length = RoundUp(std::max(fixed + cdb.size(), sizeof(Response)));
    if (!Reserve(length))
        return std::nullopt;
    uint16_t number = 1;
    while (m_inFlight.contains(number))
        number++;
    m_inFlight.insert(number);

    uint8_t* at = Ring() + m_last;
    Request request{};
    request.header = {length | kCommand, number, 0, 0};
    request.entries = static_cast<uint32_t>(data.size());
    request.cdbOffset = kRingOffset + m_last + fixed;
    std::memcpy(at, &request, sizeof(request));
    at += sizeof(request);
    for (const Extent& extent : data) {
        const std::array<uint64_t, 2> entry = {m_dataOffset + extent.offset, extent.length};
        static_assert(sizeof(entry) == sizeof(iovec));
        std::memcpy(at, entry.data(), sizeof(entry));
        at += sizeof(entry);
    }
    std::memcpy(at, cdb.data(), cdb.size());
    Publish(length);
    return number;
}

void KernelRing::PutOther(uint32_t operation, uint32_t length) {
    ASSERT_TRUE(Reserve(length));
    const Header header{length | operation, 0, 0, 0};
    std::memcpy(Ring() + m_last, &header, sizeof(header));
    Publish(length);
}

std::vector<KernelRing::Answer> KernelRing::Reap() {
    std::vector<Answer> answers;
    const uint32_t tail = std::atomic_ref(Mailbox().tail).load(std::memory_order_acquire);
    while (m_cleaned != tail) {
        Response response{};
        std::memcpy(&response, Ring() + m_cleaned,
                    std::min<size_t>(sizeof(response), Mailbox().ringSize - m_cleaned));
        const Header& header = response.header;
        if ((header.lengthAndOperation & kOperationMask) == kCommand) {
            EXPECT_EQ(m_inFlight.erase(header.number), 1U) << "number " << header.number;
            Answer answer{header.number, response.status, std::nullopt, {}};
            if ((header.userFlags & kUserReadLength) != 0)
                answer.readLength = response.readLength;
            std::memcpy(answer.sense.data(), response.sense, sizeof(response.sense));
            answers.push_back(answer);
        }
        const uint32_t length = header.lengthAndOperation & ~kOperationMask;
        if (length == 0) {
            ADD_FAILURE() << "an answer destroyed the entry's length";
            return answers;
        }
        m_cleaned = (m_cleaned + length) % Mailbox().ringSize;
    }
    return answers;
}
