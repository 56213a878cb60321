#include "tests/support/HeapProbe.h"

#include <cstdlib>
#include <new>

namespace {

struct Plan {
    size_t skip;
    size_t count;
    size_t size;
    size_t failed;
};
thread_local size_t t_allocations = 0;
thread_local Plan t_plan{};

constexpr std::align_val_t kUsual{alignof(std::max_align_t)};

void* Allocate(size_t bytes, std::align_val_t alignment = kUsual) {
    ++t_allocations;
    if (t_plan.count != 0 && (t_plan.size == 0 || t_plan.size == bytes)) {
        if (t_plan.skip == 0) {
            --t_plan.count;
            ++t_plan.failed;
            return nullptr;
        }
        --t_plan.skip;
    }
    const auto unit = static_cast<size_t>(alignment);
    return std::aligned_alloc(unit, (bytes / unit + 1) * unit);
}

void* AllocateOrThrow(size_t bytes, std::align_val_t alignment = kUsual) {
    void* p = Allocate(bytes, alignment);
    return p != nullptr ? p : throw std::bad_alloc();
}

}  // namespace

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
void operator delete(void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}

namespace heap_probe {

size_t Allocations() {
    return t_allocations;
}
Fault::Fault(size_t skip, size_t count, size_t size) {
    t_plan = {skip, count, size, 0};
}
Fault::~Fault() {
    t_plan = {};
}
size_t Fault::Failed() const {
    return t_plan.failed;
}

}  // namespace heap_probe
