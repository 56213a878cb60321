#include "libtcmu/Answer.h"

#include "libtcmu/libtcmu.h"

int SendAnswer(const Answer& answer, size_t allocationLength, iovec* iov, size_t iovCnt) {
    const uint8_t* from = answer.Data();
    size_t left = std::min(answer.Length(), allocationLength);
    for (size_t i = 0; i < iovCnt; i++) {
        if (iov[i].iov_len == 0)
            continue;
        const size_t piece = std::min(iov[i].iov_len, left);
        std::memcpy(iov[i].iov_base, from, piece);
        iov[i].iov_base = static_cast<uint8_t*>(iov[i].iov_base) + piece;
        iov[i].iov_len -= piece;
        from += piece;
        left -= piece;
        std::memset(iov[i].iov_base, 0, iov[i].iov_len);
    }
    return TCMU_STATUS_GOOD;
}
