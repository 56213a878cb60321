#pragma once

#include <cstddef>

/// Counts and fails the calling thread's allocations, through the global operator new that
/// HeapProbe.cpp replaces. Other threads are not affected.
namespace heap_probe {

/// Allocations that this thread has made so far, failed ones included.
size_t Allocations();

/// While it lives, this thread's allocations fail: `count` of them, after `skip` have succeeded.
/// With a `size`, only those of exactly that many bytes are looked at.
class Fault {
  public:
    explicit Fault(size_t skip, size_t count = 1, size_t size = 0);
    ~Fault();
    Fault(const Fault&) = delete;
    Fault& operator=(const Fault&) = delete;

    /// How many have failed.
    size_t Failed() const;
};

}  // namespace heap_probe
