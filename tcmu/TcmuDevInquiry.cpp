// INQUIRY: the library's answer with this product's identity stamped into it.

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

#include "libtcmu/Sense.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "util/Log.h"

namespace {

constexpr uint8_t kDeviceIdentification = 0x83;

/// Writes `size` bytes at `position` of the data that the entries address one after the other, as
/// far as they reach.
void Stamp(const iovec* iov, size_t iovCnt, size_t position, const char* bytes, size_t size) {
    for (; iovCnt > 0 && size > 0; ++iov, --iovCnt) {
        if (position >= iov->iov_len) {
            position -= iov->iov_len;
            continue;
        }
        const size_t part = std::min(size, iov->iov_len - position);
        std::memcpy(static_cast<char*>(iov->iov_base) + position, bytes, part);
        bytes += part;
        size -= part;
        position = 0;
    }
}

}  // namespace

int MoScsiSrvTcmuDev::Inquiry(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense) {
    // The emulation consumes the entries that it fills; the copy still addresses all data.
    const std::unique_ptr<iovec[]> data(new (std::nothrow) iovec[iovCnt]);
    if (data == nullptr) {
        MO_LOG(kLogError, "no memory");
        return SetSense(sense, Sense::kInternalTargetFailure);
    }
    std::copy_n(iov, iovCnt, data.get());

    const int status = tcmu_emulate_inquiry(m_dev, cdb, iov, iovCnt, sense);
    if (status != 0)
        return status;
    const bool vitalProductData = (cdb[1] & 0x01) != 0;
    if (!vitalProductData) {
        Stamp(data.get(), iovCnt, 8, g_VendorID, sizeof g_VendorID);
        Stamp(data.get(), iovCnt, 16, g_ProductID, sizeof g_ProductID);
        Stamp(data.get(), iovCnt, 32, g_ProductRev, sizeof g_ProductRev);
    } else if (cdb[2] == kDeviceIdentification) {
        // The vendor of the page's first designator (T10 vendor identification).
        Stamp(data.get(), iovCnt, 8, g_VendorID, sizeof g_VendorID);
    }
    return status;
}
