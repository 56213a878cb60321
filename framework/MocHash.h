#pragma once

#include <cstdint>
#include <memory>

#include "framework/Export.h"

/// A running hash. One object serves one thread at a time.
class MO_EXPORT MocHash {
  public:
    virtual ~MocHash() = default;

    virtual void reset() = 0;
    virtual void addData(const void* data, uint32_t length) = 0;

    /// Writes the raw digest, at most `size` bytes of it, into `out`; bytes beyond it stay as they
    /// are. The hash must be reset before it takes more data.
    /// Returns: the number of bytes written.
    virtual uint32_t finish(void* out, uint32_t size) = 0;
};

/// MD5 (RFC 1321), 16 bytes. Names objects; protects nothing.
class MO_EXPORT MocMD5 : public MocHash {
  public:
    MocMD5();
    ~MocMD5() override;

    void reset() override;
    void addData(const void* data, uint32_t length) override;
    uint32_t finish(void* out, uint32_t size) override;

  private:
    struct State;
    std::unique_ptr<State> m_state;
};

namespace Moc {
/// Updates a running CRC-32 (the one of IEEE 802.3, zlib's convention: start from any value, the
/// result of one call is the start of the next) in place.
MO_EXPORT void crc32(const void* data, int length, unsigned int* crc);
}  // namespace Moc
