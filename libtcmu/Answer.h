#pragma once

#include <sys/uio.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

/// The data that a command returns, while it is put together: big-endian fields one after the
/// other. What doesn't fit is dropped; every answer of the emulation fits by far.
class Answer {
  public:
    void Byte(uint8_t value) { Bytes(&value, 1); }
    void Be16(uint16_t value) { BigEndian(value, 2); }
    void Be32(uint32_t value) { BigEndian(value, 4); }
    void Be64(uint64_t value) { BigEndian(value, 8); }
    void Zeros(size_t count) { m_length = std::min(m_length + count, m_bytes.size()); }
    void Text(std::string_view text) {
        Bytes(reinterpret_cast<const uint8_t*>(text.data()), text.size());
    }
    void Bytes(const uint8_t* bytes, size_t count) {
        count = std::min(count, m_bytes.size() - m_length);
        std::memcpy(m_bytes.data() + m_length, bytes, count);
        m_length += count;
    }

    /// Overwrites a byte or a 16-bit field that stands already, a length for one.
    void SetByte(size_t at, size_t value) { m_bytes.at(at) = static_cast<uint8_t>(value); }
    void SetBe16(size_t at, size_t value) {
        SetByte(at, value >> 8U);
        SetByte(at + 1, value);
    }

    size_t Length() const { return m_length; }
    const uint8_t* Data() const { return m_bytes.data(); }

  private:
    void BigEndian(uint64_t value, unsigned bytes) {
        while (bytes-- > 0)
            Byte(static_cast<uint8_t>(value >> (8 * bytes)));
    }

    std::array<uint8_t, 512> m_bytes{};
    size_t m_length = 0;
};

/// Hands an answer over as the emulation's contract has it (libtcmu.h): cut to the allocation
/// length and to the entries, consumed, and the rest of the entries cleared.
/// Returns: 0.
int SendAnswer(const Answer& answer, size_t allocationLength, iovec* iov, size_t iovCnt);
