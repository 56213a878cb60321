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

void* Allocate(size_t bytes, size_t alignment = alignof(std::max_align_t)) {
    ++t_allocations;
    if (t_plan.count != 0 && (t_plan.size == 0 || t_plan.size == bytes)) {
        if (t_plan.skip == 0) {
            --t_plan.count;
            ++t_plan.failed;
            return nullptr;
        }
        --t_plan.skip;
    }
    const size_t rounded = (bytes + alignment - 1) / alignment * alignment;
    return std::aligned_alloc(alignment, rounded == 0 ? alignment : rounded);
}

void* AllocateOrThrow(size_t bytes, size_t alignment = alignof(std::max_align_t)) {
    void* p = Allocate(bytes, alignment);
    if (p == nullptr)
        throw std::bad_alloc();
    return p;
}

}  // namespace

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
    return AllocateOrThrow(n, static_cast<size_t>(a));
}
void* operator new[](size_t n, std::align_val_t a) {
    return AllocateOrThrow(n, static_cast<size_t>(a));
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
void operator delete[](void* p, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete(void* p, size_t, std::align_val_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, size_t, std::align_val_t) noexcept {
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
