#pragma once

#include <cstddef>

/// Counts and fails the calling thread's allocations, through the global operator new that
/// HeapProbe.cpp replaces. Other threads are not affected.
namespace heap_probe {

/// Allocations that this thread has made so far, failed ones included.
size_t Allocations();

/// While it lives, this thread's allocations fail: `count` of them, after `skip` have succeeded.
/// With a `size`, only those of exactly that many bytes are looked at.
struct Fault {
    explicit Fault(size_t skip, size_t count = 1, size_t size = 0);
    ~Fault();
    size_t Failed() const;  ///< how many have failed
};

}  // namespace heap_probe
