#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstring>
#include <optional>
#include <set>
#include <vector>

#include "libtcmu/RingLayout.h"

using Bytes = std::vector<uint8_t>;

/// A buffer as an offset into the data area and a length.
struct Extent {
    size_t offset;
    size_t length;
    bool operator==(const Extent&) const = default;
};
using Extents = std::vector<Extent>;

/// Wakes the tested side and hears from it; neither end blocks.
struct SocketPair {
    SocketPair() {
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, ends), 0);
    }
    ~SocketPair() {
        close(ends[0]);
        close(ends[1]);
    }
    SocketPair(const SocketPair&) = delete;

    int ends[2];  ///< ours, and the tested side's
};

/// The kernel's side of one TCMU device: memory laid out as the kernel does it, entries put in,
/// answers taken out. It numbers commands with the lowest number that is free and pads the end of
/// the ring.
/// Thread: one.
struct KernelRing {
    struct Answer {
        uint16_t number = 0;
        uint8_t status = 0xFF;
        std::optional<uint32_t> readLength;
        std::array<uint8_t, 96> sense{};
    };

    explicit KernelRing(uint32_t ringSize = 4096, size_t dataSize = 65536,
                        uint16_t flags = ringlayout::kFlagReadLength)
        : m_length(kRingOffset + ringSize + dataSize),
          m_pages((m_length + kPage - 1) & ~(kPage - 1)) {
        mprotect(m_mapping + m_pages, kPage, PROT_NONE);
        Mailbox().version = ringlayout::kVersion;
        Mailbox().flags = flags;
        Mailbox().ringOffset = kRingOffset;
        Mailbox().ringSize = ringSize;
    }

    ~KernelRing() { munmap(m_mapping, m_pages + kPage); }

    /// A page that nobody may touch follows. With ring and data of whole pages the mailbox has one
    /// of its own.
    uint8_t* Memory() { return m_mapping + (m_pages - m_length) / 64 * 64; }
    void AllowMailbox(int protection) { mprotect(m_mapping, kPage, protection); }
    size_t Length() const { return m_length; }
    uint8_t* Data() { return Ring() + Mailbox().ringSize; }
    ringlayout::Mailbox& Mailbox() { return *reinterpret_cast<ringlayout::Mailbox*>(Memory()); }
    uint8_t* Ring() { return Memory() + kRingOffset; }

    /// What the server takes for its UIO descriptor; Doorbells counts what came.
    int DoorbellFd() const { return m_uio.ends[1]; }
    /// As when the device is removed: the descriptor has an error, and goes on having it.
    void HangUp() const { shutdown(m_uio.ends[0], SHUT_RDWR); }
    int KernelFd() const { return m_uio.ends[0]; }  ///< readable when doorbells are there
    size_t Doorbells() {
        std::array<uint32_t, 1024> words{};
        const ssize_t bytes = read(m_uio.ends[0], words.data(), sizeof(words));
        return bytes > 0 ? static_cast<size_t>(bytes) / sizeof(uint32_t) : 0;
    }
    void RaiseEvent() {
        const uint32_t event = 1;
        // Full: then it is readable anyway.
        EXPECT_TRUE(write(m_uio.ends[0], &event, sizeof event) > 0 || errno == EAGAIN);
    }
    /// Puts a command into the ring and moves the head.
    /// Returns: its number, or nothing when the ring is full.
    std::optional<uint16_t> Put(const Bytes& cdb, const Extents& data) {
        const uint32_t fixed = sizeof(ringlayout::Request) + data.size() * sizeof(iovec);
        const auto length =
            std::max<uint32_t>((fixed + cdb.size() + 7) / 8 * 8, sizeof(ringlayout::Response));
        if (!Reserve(length))
            return std::nullopt;
        const uint16_t number = m_free.empty() ? ++m_used : m_free.extract(m_free.begin()).value();

        uint8_t* const at = Ring() + m_last;
        auto& request = *reinterpret_cast<ringlayout::Request*>(at);
        request.header = {length | ringlayout::kCommand, number, 0, 0};
        request.entries = static_cast<uint32_t>(data.size());
        request.cdbOffset = kRingOffset + m_last + fixed;
        auto* entry = reinterpret_cast<uint64_t*>(&request + 1);
        for (const auto& [offset, bytes] : data) {
            *entry++ = Data() - Memory() + offset;
            *entry++ = bytes;
        }
        std::memcpy(at + fixed, cdb.data(), cdb.size());
        Publish(length);
        return number;
    }
    /// Puts an entry of another operation.
    void PutOther(uint32_t operation, uint32_t length) {
        ASSERT_TRUE(Reserve(length));
        HeaderAt(m_last) = {length | operation, 0, 0, 0};
        Publish(length);
    }
    /// The offset, from the ring's beginning, of what was put last.
    uint32_t LastEntry() const { return m_last; }

    /// Takes the answers up to the tail; a number that isn't in flight fails the test.
    std::vector<Answer> Reap() {
        std::vector<Answer> answers;
        const uint32_t tail = std::atomic_ref(Mailbox().tail).load(std::memory_order_acquire);
        while (m_cleaned != tail && !testing::Test::HasFailure()) {
            ringlayout::Response response{};
            std::memcpy(&response, Ring() + m_cleaned, sizeof(response));
            const ringlayout::Header& header = response.header;
            const uint32_t operation = header.lengthAndOperation & ringlayout::kOperationMask;
            if (operation == ringlayout::kCommand) {
                EXPECT_TRUE(header.number <= m_used && m_free.insert(header.number).second)
                    << "number " << header.number;
                Answer& answer = answers.emplace_back();
                answer.number = header.number;
                answer.status = response.status;
                if ((header.userFlags & ringlayout::kUserReadLength) != 0)
                    answer.readLength = response.readLength;
                std::memcpy(answer.sense.data(), response.sense, sizeof(response.sense));
            }
            m_cleaned += header.lengthAndOperation - operation;
            m_cleaned %= Mailbox().ringSize;
        }
        return answers;
    }
    size_t InFlight() const { return m_used - m_free.size(); }

  private:
    static constexpr uint32_t kRingOffset = 128;
    static constexpr size_t kPage = 4096;

    ringlayout::Header& HeaderAt(uint32_t offset) {
        return *reinterpret_cast<ringlayout::Header*>(Ring() + offset);
    }

    /// Makes room for an entry, behind a padding one when it would cross the ring's end.
    bool Reserve(uint32_t length) {
        const uint32_t size = Mailbox().ringSize;
        const uint32_t used = (m_head + size - m_cleaned) % size;
        const uint32_t padding = size - m_head < length ? size - m_head : 0;
        if (used + padding + length >= size)
            return false;
        if (padding > 0) {
            HeaderAt(m_head) = {padding | ringlayout::kPad, 0, 0, 0};
            m_head = 0;
        }
        m_last = m_head;
        std::memset(Ring() + m_last, 0, length);
        return true;
    }
    void Publish(uint32_t length) {
        m_head = (m_head + length) % Mailbox().ringSize;
        std::atomic_ref(Mailbox().head).store(m_head, std::memory_order_release);
    }

    const size_t m_length;
    const size_t m_pages;
    uint8_t* const m_mapping = static_cast<uint8_t*>(
        mmap(nullptr, m_pages + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    uint32_t m_head = 0;
    uint32_t m_cleaned = 0;
    uint32_t m_last = 0;
    uint16_t m_used = 0;        // the highest number yet
    std::set<uint16_t> m_free;  // those up to it that aren't in flight
    SocketPair m_uio;
};
