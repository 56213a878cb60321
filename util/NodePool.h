#pragma once

#include <cstddef>
#include <memory_resource>

/// Memory for the nodes of a container that grows and shrinks with the load: every node is one
/// block of one size, and a freed block is the next one handed out. So a node that moves from one
/// container of the pool to another takes nothing from the heap, and its memory is still cached.
/// Larger pieces, such as the bucket arrays of hash maps, come from the heap.
///
/// Ownership: blocks belong to the pool until it is destroyed; containers that use it must be gone
/// by then.
/// Thread: one at a time; share it under the mutex of the containers.
class NodePool : public std::pmr::memory_resource {
  public:
    NodePool() = default;
    ~NodePool() override;
    NodePool(const NodePool&) = delete;
    NodePool& operator=(const NodePool&) = delete;

    /// Makes the next `nodes` allocations of single nodes sure to succeed without the heap.
    /// Errors: std::bad_alloc; nothing has changed then.
    void Reserve(size_t nodes);

  private:
    // Holds a list or hash node of two pointers, with a word to spare.
    union Block {
        Block* next;
        alignas(std::max_align_t) std::byte node[32];
    };

    static bool Fits(size_t bytes, size_t alignment) {
        return bytes <= sizeof(Block) && alignment <= alignof(Block);
    }
    void Grow(size_t blocks);

    void* do_allocate(size_t bytes, size_t alignment) override;
    void do_deallocate(void* p, size_t bytes, size_t alignment) override;
    bool do_is_equal(const memory_resource& other) const noexcept override {
        return this == &other;
    }

    Block* m_free = nullptr;
    Block* m_chunks = nullptr;  // the first block of each chunk links the chunks
    size_t m_freeCount = 0;
};
