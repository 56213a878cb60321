#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <vector>

#include "adapters/libtcmu/RingLayout.h"

/// The kernel's side of one TCMU device: memory laid out as the kernel does it, entries put in,
/// answers taken out. It numbers commands with the lowest number that is free, pads the end of the
/// ring, and looks at answers when it is told to.
/// Thread: one.
class KernelRing {
  public:
    /// A buffer as an offset into the data area and a length.
    struct Extent {
        size_t offset;
        size_t length;
    };
    struct Answer {
        uint16_t number;
        uint8_t status;
        std::optional<uint32_t> readLength;
        std::array<uint8_t, 96> sense;
    };

    explicit KernelRing(uint32_t ringSize = 4096, size_t dataSize = 65536,
                        uint16_t flags = ringlayout::kFlagReadLength);
    ~KernelRing();
    KernelRing(const KernelRing&) = delete;
    KernelRing& operator=(const KernelRing&) = delete;

    uint8_t* Memory() { return m_memory.front().bytes; }
    size_t Length() const { return m_length; }
    uint8_t* Data() { return Memory() + m_dataOffset; }
    ringlayout::Mailbox& Mailbox() { return *reinterpret_cast<ringlayout::Mailbox*>(Memory()); }
    uint8_t* Ring() { return Memory() + kRingOffset; }

    /// The write end that the server takes for its UIO descriptor; Doorbells counts what came.
    int DoorbellFd() const { return m_pipe[1]; }
    size_t Doorbells();
    /// Returns: false when no doorbell came for ten seconds.
    bool WaitForDoorbell();

    /// Puts a command into the ring and moves the head.
    /// Returns: its number, or nothing when the ring is full.
    std::optional<uint16_t> Put(const std::vector<uint8_t>& cdb, const std::vector<Extent>& data);
    /// Puts an entry of another operation.
    void PutOther(uint32_t operation, uint32_t length);
    /// The offset, from the ring's beginning, of what was put last.
    uint32_t LastEntry() const { return m_last; }

    /// Takes the answers up to the tail; a number that isn't in flight fails the test.
    std::vector<Answer> Reap();
    size_t InFlight() const { return m_inFlight.size(); }

  private:
    static constexpr uint32_t kRingOffset = 128;

    bool Reserve(uint32_t length);
    void Publish(uint32_t length);

    struct alignas(64) Line {
        uint8_t bytes[64];
    };
    std::vector<Line> m_memory;
    size_t m_length;
    size_t m_dataOffset;
    uint32_t m_head = 0;
    uint32_t m_cleaned = 0;
    uint32_t m_last = 0;
    std::set<uint16_t> m_inFlight;
    std::array<int, 2> m_pipe{};
};
