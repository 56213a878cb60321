#include "libtcmu/Iovec.h"

#include <algorithm>
#include <cstring>

namespace {

char* Base(const iovec& entry) {
    return static_cast<char*>(entry.iov_base);
}

}  // namespace

uint64_t Iovec::Length(const iovec* iov, size_t count) {
    uint64_t length = 0;
    for (size_t i = 0; i < count; ++i)
        length += iov[i].iov_len;
    return length;
}

size_t Iovec::Clip(iovec* iov, size_t count, uint64_t length) {
    size_t kept = 0;
    for (; kept < count && length > 0; ++kept) {
        if (iov[kept].iov_len > length)
            iov[kept].iov_len = length;
        length -= iov[kept].iov_len;
    }
    return kept;
}

size_t Iovec::Merge(iovec* iov, size_t count) {
    size_t kept = 0;
    for (size_t i = 0; i < count; ++i) {
        if (iov[i].iov_len == 0)
            continue;
        if (kept > 0 && Base(iov[kept - 1]) + iov[kept - 1].iov_len == Base(iov[i]))
            iov[kept - 1].iov_len += iov[i].iov_len;
        else
            iov[kept++] = iov[i];
    }
    return kept;
}

size_t Iovec::Gather(const iovec* iov, size_t count, void* flat, size_t length) {
    size_t done = 0;
    for (size_t i = 0; i < count && done < length; ++i) {
        const size_t piece = std::min(iov[i].iov_len, length - done);
        if (piece > 0)
            memcpy(static_cast<char*>(flat) + done, iov[i].iov_base, piece);
        done += piece;
    }
    return done;
}

void Iovec::Scatter(const iovec* iov, size_t count, const void* flat) {
    const char* from = static_cast<const char*>(flat);
    for (size_t i = 0; i < count; ++i) {
        memcpy(iov[i].iov_base, from, iov[i].iov_len);
        from += iov[i].iov_len;
    }
}

void Iovec::ClearFrom(const iovec* iov, size_t count, uint64_t offset) {
    for (size_t i = 0; i < count; ++i) {
        if (offset < iov[i].iov_len) {
            memset(Base(iov[i]) + offset, 0, iov[i].iov_len - offset);
            offset = 0;
        } else {
            offset -= iov[i].iov_len;
        }
    }
}
