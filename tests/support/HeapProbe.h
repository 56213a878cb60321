#pragma once

#include <cstddef>

/// Counts and fails the calling thread's allocations, through the global operator new that
/// HeapProbe.cpp replaces. Other threads are not affected.
namespace heap_probe {

/// Allocations that this thread has made so far, failed ones included.
inline thread_local constinit size_t t_allocations = 0;

struct Plan {
    size_t skip, count, size, failed;
};
inline thread_local constinit Plan t_plan{};

/// While one lives, this thread's allocations fail: `count` of them, after `skip` have succeeded.
/// With a `size`, only those of exactly that many bytes are looked at.
struct Fault {
    explicit Fault(size_t skip, size_t count = 1, size_t size = 0) {
        t_plan = {skip, count, size, 0};
    }
    ~Fault() { t_plan = {}; }
    static size_t Failed() { return t_plan.failed; }  ///< how many have failed
};

}  // namespace heap_probe
