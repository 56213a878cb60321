// Lending and taking back an I/O context, against malloc and free of a record and its entries.
//
// Each pair of benchmarks does the same work. "Burst" lends N and takes back all; the last pair
// gives back on another thread, as a host does. Read the figures as ratios within one run.

#include <benchmark/benchmark.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "ioctx/MoScsiSrvIoctxMgr.h"

namespace {

constexpr int kEntries = 4;

struct Slabs {
    MoIoctxMgr manager{kEntries};
    MoScsiSrvIO* Take() { return manager.Ioctx_Alloc(kEntries, this); }
    void Give(MoScsiSrvIO* ioctx) { manager.Ioctx_Free(ioctx); }
};

struct Malloc {
    MoScsiSrvIO* Take() {
        auto* ioctx = static_cast<MoScsiSrvIO*>(std::malloc(sizeof(MoScsiSrvIO)));
        ioctx->iov = static_cast<iovec*>(std::malloc(kEntries * sizeof(iovec)));
        ioctx->iovcnt = kEntries;
        benchmark::DoNotOptimize(ioctx->iov);
        return ioctx;
    }
    void Give(MoScsiSrvIO* ioctx) {
        std::free(ioctx->iov);
        std::free(ioctx);
    }
};

template <typename Source>
void Burst(benchmark::State& state) {
    Source source;
    std::vector<MoScsiSrvIO*> lent(static_cast<size_t>(state.range(0)));
    while (state.KeepRunning()) {
        for (MoScsiSrvIO*& ioctx : lent)
            benchmark::DoNotOptimize(ioctx = source.Take());
        for (MoScsiSrvIO* ioctx : lent)
            source.Give(ioctx);
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}

template <typename Source>
void GiveBackOnAnotherThread(benchmark::State& state) {
    constexpr size_t kSlots = 256;
    Source source;
    std::vector<std::atomic<MoScsiSrvIO*>> ring(kSlots);
    std::atomic<bool> ended{false};
    std::thread host([&] {
        for (size_t i = 0;; i = (i + 1) % kSlots) {
            MoScsiSrvIO* ioctx = nullptr;
            while ((ioctx = ring[i].exchange(nullptr)) == nullptr) {
                if (ended)
                    return;
                std::this_thread::yield();
            }
            source.Give(ioctx);
        }
    });
    size_t i = 0;
    while (state.KeepRunning()) {
        MoScsiSrvIO* ioctx = source.Take();
        while (ring[i].load() != nullptr)
            std::this_thread::yield();
        ring[i] = ioctx;
        i = (i + 1) % kSlots;
    }
    ended = true;
    host.join();
    state.SetItemsProcessed(state.iterations());
}

BENCHMARK(Burst<Slabs>)->Arg(1)->Arg(32)->Arg(512);
BENCHMARK(Burst<Malloc>)->Arg(1)->Arg(32)->Arg(512);
BENCHMARK(GiveBackOnAnotherThread<Slabs>)->UseRealTime();
BENCHMARK(GiveBackOnAnotherThread<Malloc>)->UseRealTime();

}  // namespace
