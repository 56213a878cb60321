#include "tests/support/HeapProbe.h"

#include <cstdlib>
#include <new>

constexpr std::align_val_t kUsual{alignof(std::max_align_t)};

static void* Allocate(size_t bytes, std::align_val_t alignment = kUsual) {
    ++heap_probe::t_allocations;
    auto& plan = heap_probe::t_plan;
    if (plan.count != 0 && (plan.size == 0 || plan.size == bytes) && plan.skip-- == 0) {
        plan.skip = 0;
        --plan.count;
        ++plan.failed;
        return nullptr;
    }
    const auto unit = static_cast<size_t>(alignment);
    return std::aligned_alloc(unit, (bytes / unit + 1) * unit);
}

static void* AllocateOrThrow(size_t bytes, std::align_val_t alignment = kUsual) {
    void* p = Allocate(bytes, alignment);
    return p != nullptr ? p : throw std::bad_alloc();
}

// All that is used, because a sanitizer's own would otherwise answer for the rest.
void* operator new(size_t n) {
    return AllocateOrThrow(n);
}
void* operator new[](size_t n) {
    return AllocateOrThrow(n);
}
void* operator new(size_t n, const std::nothrow_t&) noexcept {
    return Allocate(n);
}
void* operator new[](size_t n, const std::nothrow_t&) noexcept {
    return Allocate(n);
}
void* operator new(size_t n, std::align_val_t a) {
    return AllocateOrThrow(n, a);
}

// All memory above is of one kind, so the usual deletes do; a sanitizer is not to ask which fits.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options() {
    return "alloc_dealloc_mismatch=0:new_delete_type_mismatch=0";
}
