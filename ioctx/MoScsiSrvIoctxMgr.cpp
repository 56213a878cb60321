// The I/O context manager: its life, lending, finding and taking back records, and the slabs that
// they come from.

#include "ioctx/MoScsiSrvIoctxMgr.h"

#include <new>

#include "util/Log.h"

namespace {

/// Raises a counter that is written under the mutex only: a plain store is enough then, where an
/// atomic increment would cost as much as the mutex.
void RaiseLocked(MoIoctxMgr::Stats::Counter& counter) {
    counter.store(counter.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
}

}  // namespace

MoIoctxMgr* MoIoctxMgr::g_IoctxMgr = nullptr;
Mutex MoIoctxMgr::g_InstanceMutex;

MoIoctxMgr* MoIoctxMgr::Instance() {
    g_InstanceMutex.lock();
    if (g_IoctxMgr == nullptr)
        g_IoctxMgr = new MoIoctxMgr(4);
    MoIoctxMgr* manager = g_IoctxMgr;
    g_InstanceMutex.unlock();
    MO_LOG(kLogProgress, "Instance %p", static_cast<void*>(manager));
    return manager;
}

MoIoctxMgr::MoIoctxMgr(int iovPerIoctx) {
    m_mutex.lock();
    InitStats();
    m_iovPerIoctx = iovPerIoctx < kMaxIov ? iovPerIoctx : 1;
    for (int i = 0; i < kFirstSlabs; ++i)
        create_slab();
    m_mutex.unlock();
}

MoIoctxMgr::~MoIoctxMgr() {
    m_mutex.lock();
    if (!m_busyMap.empty())
        MO_LOG(kLogError, "ioctx in use %lu", m_busyMap.size());
    if (!m_largeMap.empty())
        MO_LOG(kLogError, "ioctx in use %lu", m_largeMap.size());
    for (MoScsiSrvIO* slab : m_slabs)
        DeleteSlabLocked(slab);
    m_mutex.unlock();
}

void MoIoctxMgr::InitStats() {
    for (Stats::Counter* counter :
         {&m_stats.slabsCreated, &m_stats.slabCreateErrors, &m_stats.slabsDeleted,
          &m_stats.slabDeletesRefused, &m_stats.slabAllocs, &m_stats.reserved, &m_stats.slabFrees,
          &m_stats.largeAllocs, &m_stats.largeAllocErrors, &m_stats.largeFrees,
          &m_stats.unknownFrees, &m_stats.unknownLookups, &m_stats.tooManyIov})
        *counter = 0;
    for (Stats::Counter& counter : m_stats.allocsByIovcnt)
        counter = 0;
}

MoScsiSrvIO* MoIoctxMgr::Ioctx_Alloc(int iovcnt, void* priv) {
    if (iovcnt <= m_iovPerIoctx) {
        if (iovcnt >= 0)  // a slab's capacity is below the array's size
            ++m_stats.allocsByIovcnt[static_cast<size_t>(iovcnt)];
        MoScsiSrvIO* ioctx = Ioctx_Alloc(priv);
        if (ioctx != nullptr)
            ioctx->iovcnt = iovcnt;
        return ioctx;
    }
    if (iovcnt <= kMaxIov)
        return AllocLarge(__PRETTY_FUNCTION__, iovcnt, priv);

    MO_LOG(kLogError, "too many iovec %d", iovcnt);
    ++m_stats.tooManyIov;
    return nullptr;
}

MoScsiSrvIO* MoIoctxMgr::Ioctx_Alloc(void* priv) {
    MoScsiSrvIO* ioctx = nullptr;
    int retries = 3;
    m_mutex.lock();
    do {
        if (!m_freeList.empty()) {
            ioctx = m_freeList.front();
            ioctx->iovcnt = m_iovPerIoctx;
            // The list's node becomes the map's, and the map has buckets for every record: neither
            // the heap nor a failure comes into it. Ioctx_Free goes the same way back.
            m_freeList.pop_front();
            m_busyMap.emplace(ioctx, priv);
            RaiseLocked(m_stats.slabAllocs);
            break;
        }
        create_slab();
        // A slab that only the last attempt could make is left for the next request.
    } while (retries-- != 0);
    m_mutex.unlock();

    if (ioctx == nullptr)
        MO_LOG(kLogError, "ioctx alloc error");
    return ioctx;
}

MoScsiSrvIO* MoIoctxMgr::AllocLarge(const char* function, int iovcnt, void* priv) {
    auto* ioctx = new (std::nothrow) MoScsiSrvIO();
    if (ioctx == nullptr) {
        MO_LOG_AS(function, kLogError, "largeioalloc err %d", iovcnt);
        ++m_stats.largeAllocErrors;
        return nullptr;
    }
    bool entered = false;
    // Below zero only in a manager whose slabs have a negative capacity.
    ioctx->iov = iovcnt < 0 ? nullptr : new (std::nothrow) iovec[static_cast<size_t>(iovcnt)]();
    ioctx->iovcnt = iovcnt;
    if (ioctx->iov != nullptr) {
        m_mutex.lock();
        try {
            m_largeMap.emplace(ioctx, priv);
            entered = true;
        } catch (const std::bad_alloc&) {  // handled as a missing array, below
        }
        m_mutex.unlock();
    }
    if (!entered) {
        MO_LOG_AS(function, kLogError, "no memory");
        delete[] ioctx->iov;
        delete ioctx;
        return nullptr;
    }
    ++m_stats.largeAllocs;
    return ioctx;
}

void MoIoctxMgr::Ioctx_Free(MoScsiSrvIO* ioctx) {
    m_mutex.lock();
    if (m_busyMap.erase(ioctx) != 0) {
        RaiseLocked(m_stats.slabFrees);
        m_freeList.push_back(ioctx);
    } else if (m_largeMap.erase(ioctx) != 0) {
        ++m_stats.largeFrees;
        delete[] ioctx->iov;
        delete ioctx;
    } else {
        MO_LOG(kLogError, "bad ioctx %p", static_cast<void*>(ioctx));
        ++m_stats.unknownFrees;
    }
    m_mutex.unlock();
}

void* MoIoctxMgr::Ioctx_GetPriv(MoScsiSrvIO* ioctx) {
    void* priv = nullptr;
    m_mutex.lock();
    if (const auto busy = m_busyMap.find(ioctx); busy != m_busyMap.end()) {
        priv = busy->second;
    } else if (const auto large = m_largeMap.find(ioctx); large != m_largeMap.end()) {
        priv = large->second;
    } else {
        MO_LOG(kLogError, "bad ioctx %p", static_cast<void*>(ioctx));
        ++m_stats.unknownLookups;
    }
    m_mutex.unlock();
    return priv;
}

size_t MoIoctxMgr::InUse() {
    m_mutex.lock();
    const size_t inUse = m_busyMap.size() + m_largeMap.size();
    m_mutex.unlock();
    return inUse;
}

// ---- Slabs: 64 records and one array of buffer entries that they share

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
