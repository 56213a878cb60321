// Slabs: 64 I/O context records and one array of buffer entries that they share.

#include <new>

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "util/Log.h"

MoScsiSrvIO* MoIoctxMgr::create_slab() {
    auto* records = new (std::nothrow) MoScsiSrvIO[IOCTX_PER_SLAB]();
    iovec* entries = nullptr;
    if (m_iovPerIoctx >= 0) {
        const auto perRecord = static_cast<size_t>(m_iovPerIoctx);
        entries = new (std::nothrow) iovec[IOCTX_PER_SLAB * perRecord]();
    }
    if (records == nullptr || entries == nullptr || !ReserveForSlab()) {
        MO_LOG(kLogError, "no memory!");
        ++m_stats.slabCreateErrors;
        delete[] records;
        delete[] entries;
        return nullptr;
    }
    for (int i = 0; i < IOCTX_PER_SLAB; ++i) {
        records[i].iov = entries + static_cast<ptrdiff_t>(i) * m_iovPerIoctx;
        records[i].iovcnt = m_iovPerIoctx;
        m_freeList.push_back(&records[i]);
    }
    m_slabs.push_back(records);
    ++m_stats.slabsCreated;
    return records;
}

/// Gets everything that the containers will need for 64 more records, so that only here can memory
/// run out. Returns: false when it did.
bool MoIoctxMgr::ReserveForSlab() {
    try {
        m_slabs.reserve(m_slabs.size() + 1);
        m_busyMap.reserve((m_slabs.size() + 1) * IOCTX_PER_SLAB);
        m_nodes.Reserve(IOCTX_PER_SLAB);
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }
}

bool MoIoctxMgr::delete_slab(MoScsiSrvIO* slab) {
    m_mutex.lock();
    const bool deleted = DeleteSlabLocked(slab);
    m_mutex.unlock();
    return deleted;
}

bool MoIoctxMgr::DeleteSlabLocked(MoScsiSrvIO* slab) {
    size_t free = m_freeList.size();
    for (int i = 0; i < IOCTX_PER_SLAB; ++i) {
        m_freeList.remove(slab + i);
        if (m_freeList.size() != --free) {
            MO_LOG_AS("bool MoIoctxMgr::delete_slab(MoScsiSrvIO*)", kLogError,
                      "slab %p: ioctx %p is on busy list", static_cast<void*>(slab),
                      static_cast<void*>(slab + i));
            ++m_stats.slabDeletesRefused;
            return false;
        }
    }
    ++m_stats.slabsDeleted;
    delete[] slab->iov;
    delete[] slab;
    return true;
}
