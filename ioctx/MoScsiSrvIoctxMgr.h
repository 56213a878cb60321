#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <list>
#include <unordered_map>
#include <vector>

#include "framework/Mutex.h"
#include "ioctx/MoScsiSrvIO.h"
#include "util/NodePool.h"

/// The memory behind the manager's list and maps. A base, so that it is made before the members
/// that live in it and outlives them. Making a slab also makes a node for each of its records,
/// which then moves between the free list and the busy map: lending and taking back a slab record
/// never touches the heap.
class MoIoctxMemory {
  protected:
    NodePool m_nodes;  // used under the manager's mutex only
};

/// Owns the I/O context records: lends them to devices, which lend them to the host, and finds the
/// device of a record when the host gives it back.
///
/// Records of up to `m_iovPerIoctx` buffer entries come from slabs that are never given back; 5 to
/// 16 entries come from the heap; more are refused. Memory grows to the peak of concurrent records.
///
/// Thread: every public operation, any. Lock order: a device's mutex before this one.
class MoIoctxMgr : private MoIoctxMemory {
  public:
    static constexpr int IOCTX_PER_SLAB = 64;
    static constexpr int kMaxIov = 16;

    /// The process's manager, made at the first call and never destroyed.
    static MoIoctxMgr* Instance();

    /// Starts with 512 free records.
    /// `iovPerIoctx`: buffer entries of every slab record; 16 or more falls back to 1. Negative
    /// values are taken as they are: no slab can be made then.
    explicit MoIoctxMgr(int iovPerIoctx);
    ~MoIoctxMgr();

    MoIoctxMgr(const MoIoctxMgr&) = delete;
    MoIoctxMgr& operator=(const MoIoctxMgr&) = delete;

    /// Lends a record with `iovcnt` usable entries, bound to `priv`. Its offset, length and entries
    /// hold what the last user left.
    /// Returns: the record, or null (too many entries, no memory; logged and counted).
    MoScsiSrvIO* Ioctx_Alloc(int iovcnt, void* priv) MO_EXCLUDES(m_mutex);

    /// Lends one slab record with the slab's full number of entries.
    /// Returns: the record, or null when no slab could be made (logged).
    MoScsiSrvIO* Ioctx_Alloc(void* priv) MO_EXCLUDES(m_mutex);

    /// Takes a record back. One that isn't on loan is logged, counted and ignored.
    void Ioctx_Free(MoScsiSrvIO* ioctx) MO_EXCLUDES(m_mutex);

    /// Returns: the pointer that the record was bound to, or null when it isn't on loan (logged and
    /// counted).
    void* Ioctx_GetPriv(MoScsiSrvIO* ioctx) MO_EXCLUDES(m_mutex);

    /// Counters, each raised by one; they may be read at any time, without the lock.
    struct Stats {
        using Counter = std::atomic<uint64_t>;
        Counter slabsCreated;
        Counter slabCreateErrors;
        Counter slabsDeleted;
        Counter slabDeletesRefused;
        Counter slabAllocs;
        Counter reserved;  // reset with the others, never counted
        Counter slabFrees;
        Counter largeAllocs;
        Counter largeAllocErrors;
        Counter largeFrees;
        Counter unknownFrees;
        Counter unknownLookups;
        Counter tooManyIov;
        std::array<Counter, kMaxIov> allocsByIovcnt;
    };
    const Stats& GetStats() const { return m_stats; }

    /// Records on loan now.
    size_t InUse() MO_EXCLUDES(m_mutex);

  private:
    friend struct MoIoctxMgrTest;  // reaches the internal operations below

    static constexpr int kFirstSlabs = 8;

    /// Adds 64 free records. Returns: the first, or null (no memory; logged and counted).
    MoScsiSrvIO* create_slab() MO_REQUIRES(m_mutex);
    /// Frees a slab of which no record is on loan. Its entry in m_slabs stays.
    /// Returns: false at the first record that isn't free (logged and counted): the slab stays,
    /// and the records before that one are lost to the free list.
    bool delete_slab(MoScsiSrvIO* slab) MO_EXCLUDES(m_mutex);
    bool DeleteSlabLocked(MoScsiSrvIO* slab) MO_REQUIRES(m_mutex);
    bool ReserveForSlab() MO_REQUIRES(m_mutex);

    /// `function`: the signature of the entry, for the log.
    MoScsiSrvIO* AllocLarge(const char* function, int iovcnt, void* priv) MO_EXCLUDES(m_mutex);
    void InitStats();

    static MoIoctxMgr* g_IoctxMgr;
    static Mutex g_InstanceMutex;

    std::pmr::list<MoScsiSrvIO*> m_freeList MO_GUARDED_BY(m_mutex){&m_nodes};
    std::pmr::unordered_map<MoScsiSrvIO*, void*> m_busyMap MO_GUARDED_BY(m_mutex){&m_nodes};
    std::pmr::unordered_map<MoScsiSrvIO*, void*> m_largeMap MO_GUARDED_BY(m_mutex){&m_nodes};
    std::vector<MoScsiSrvIO*> m_slabs MO_GUARDED_BY(m_mutex);
    int m_iovPerIoctx;
    Mutex m_mutex;
    Stats m_stats;
};
