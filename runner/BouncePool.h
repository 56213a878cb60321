#pragma once

#include <cstddef>
#include <vector>

#include "framework/Mutex.h"

/// Flat buffers for transfers whose pieces are too many for the handler: bounded in number and in
/// bytes, one pool a device, so that a LUN whose host holds its contexts can't starve another.
///
/// Buffers are aligned to a page and hold what their last user left. Those for transfers of up to
/// kMaxTransferBytes all have that size, and are kept for the next user.
///
/// Thread: any.
class BouncePool {
  public:
    /// The longest transfer that a device asks initiators for. Some send longer ones.
    static constexpr size_t kMaxTransferBytes = size_t(1) << 20;
    static constexpr size_t kMaxBuffers = 64;
    static constexpr size_t kMaxBytes = kMaxBuffers * kMaxTransferBytes;

    /// Makes room at once for all that may come back, so that Return can't fail.
    BouncePool() { m_kept.reserve(kMaxBuffers); }
    ~BouncePool();

    BouncePool(const BouncePool&) = delete;
    BouncePool& operator=(const BouncePool&) = delete;

    /// Lends a buffer of at least `bytes`. Never waits: the caller is a device's only thread.
    /// Returns: the buffer, or null when the pool's bounds are reached or memory is short.
    void* Take(size_t bytes) MO_EXCLUDES(m_mutex);

    /// Takes a buffer back. `bytes` is what it was taken for.
    void Return(void* buffer, size_t bytes) MO_EXCLUDES(m_mutex);

  private:
    static size_t Rounded(size_t bytes);

    Mutex m_mutex;
    size_t m_buffers MO_GUARDED_BY(m_mutex) = 0;       // on loan
    size_t m_bytes MO_GUARDED_BY(m_mutex) = 0;         // on loan and kept
    std::vector<void*> m_kept MO_GUARDED_BY(m_mutex);  // kMaxTransferBytes each
};
