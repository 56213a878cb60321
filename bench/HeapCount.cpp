#include "bench/HeapCount.h"

#include <atomic>
#include <cstdlib>
#include <new>

static std::atomic<size_t> g_allocations{0};

size_t HeapAllocations() {
    return g_allocations.load();
}

static void* Allocate(size_t bytes) {
    g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* const p = std::malloc(bytes))
        return p;
    throw std::bad_alloc();
}

void* operator new(size_t bytes) {
    return Allocate(bytes);
}
void* operator new[](size_t bytes) {
    return Allocate(bytes);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept {
    std::free(p);
}
