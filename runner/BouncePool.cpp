#include "runner/BouncePool.h"

#include <algorithm>
#include <cstdlib>

namespace {
constexpr size_t kPage = 4096;
}

BouncePool::~BouncePool() {
    for (void* buffer : m_kept)
        free(buffer);
}

void* BouncePool::Take(size_t bytes) {
    const size_t rounded = Rounded(bytes);
    const MutexGuard guard(m_mutex);
    if (m_buffers == kMaxBuffers)
        return nullptr;
    if (rounded == kMaxTransferBytes && !m_kept.empty()) {
        void* buffer = m_kept.back();
        m_kept.pop_back();
        ++m_buffers;
        return buffer;
    }
    while (m_bytes + rounded > kMaxBytes && !m_kept.empty()) {
        free(m_kept.back());
        m_kept.pop_back();
        m_bytes -= kMaxTransferBytes;
    }
    if (m_bytes + rounded > kMaxBytes)
        return nullptr;
    void* buffer = aligned_alloc(kPage, rounded);
    if (buffer == nullptr)
        return nullptr;
    m_bytes += rounded;
    ++m_buffers;
    return buffer;
}

void BouncePool::Return(void* buffer, size_t bytes) {
    const size_t rounded = Rounded(bytes);
    const MutexGuard guard(m_mutex);
    --m_buffers;
    if (rounded == kMaxTransferBytes) {
        m_kept.push_back(buffer);
        return;
    }
    free(buffer);
    m_bytes -= rounded;
}

size_t BouncePool::Rounded(size_t bytes) {
    return std::max(kMaxTransferBytes, (bytes + kPage - 1) / kPage * kPage);
}
