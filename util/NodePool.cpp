#include "util/NodePool.h"

#include <new>

NodePool::~NodePool() {
    while (m_chunks != nullptr) {
        Block* next = m_chunks->next;
        delete[] m_chunks;
        m_chunks = next;
    }
}

void NodePool::Reserve(size_t nodes) {
    if (m_freeCount < nodes)
        Grow(nodes - m_freeCount);
}

void NodePool::Grow(size_t blocks) {
    auto* chunk = new Block[blocks + 1];
    chunk[0].next = m_chunks;
    m_chunks = chunk;
    for (size_t i = blocks; i > 0; --i) {
        chunk[i].next = m_free;
        m_free = &chunk[i];
    }
    m_freeCount += blocks;
}

void* NodePool::do_allocate(size_t bytes, size_t alignment) {
    if (!Fits(bytes, alignment))
        return std::pmr::new_delete_resource()->allocate(bytes, alignment);
    if (m_free == nullptr)
        Grow(64);
    Block* block = m_free;
    m_free = block->next;
    --m_freeCount;
    return block;
}

void NodePool::do_deallocate(void* p, size_t bytes, size_t alignment) {
    if (!Fits(bytes, alignment)) {
        std::pmr::new_delete_resource()->deallocate(p, bytes, alignment);
        return;
    }
    auto* block = static_cast<Block*>(p);
    block->next = m_free;
    m_free = block;
    ++m_freeCount;
}
