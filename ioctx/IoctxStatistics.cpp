#include "ioctx/IoctxStatistics.h"

#include "ioctx/MoScsiSrvIoctxMgr.h"

namespace {

MoStatistics::Counters ReadCounters() {
    MoIoctxMgr& manager = *MoIoctxMgr::Instance();
    const MoIoctxMgr::Stats& stats = manager.GetStats();
    MoStatistics::Counters counters = {
        {"on loan", manager.InUse()},
        {"slabs made", stats.slabsCreated},
        {"slab errors", stats.slabCreateErrors},
        {"slabs deleted", stats.slabsDeleted},
        {"slab deletions refused", stats.slabDeletesRefused},
        {"slab loans", stats.slabAllocs},
        {"slab returns", stats.slabFrees},
        {"large loans", stats.largeAllocs},
        {"large errors", stats.largeAllocErrors},
        {"large returns", stats.largeFrees},
        {"unknown returns", stats.unknownFrees},
        {"unknown lookups", stats.unknownLookups},
        {"too many entries", stats.tooManyIov},
    };
    for (size_t i = 0; i < stats.allocsByIovcnt.size(); ++i)
        counters.emplace_back("loans of " + std::to_string(i) + " entries",
                              stats.allocsByIovcnt[i]);
    return counters;
}

}  // namespace

std::unique_ptr<MoStatistics::Registration> RegisterIoctxStatistics() {
    return MoStatistics::Register("ioctx manager", ReadCounters);
}
