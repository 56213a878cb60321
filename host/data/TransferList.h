#pragma once

#include <utility>

#include "host/data/Transfers.h"

/// Transfers in a row, first in, first out. It takes no memory, so adding one can't fail. A
/// transfer is in one list at most. Thread: one at a time.
class TransferList {
  public:
    TransferList() = default;
    TransferList(TransferList&& other) noexcept { *this = std::move(other); }
    TransferList& operator=(TransferList&& other) noexcept {
        m_first = std::exchange(other.m_first, nullptr);
        m_last = std::exchange(other.m_last, nullptr);
        return *this;
    }
    TransferList(const TransferList&) = delete;
    TransferList& operator=(const TransferList&) = delete;
    ~TransferList() = default;

    bool Empty() const { return m_first == nullptr; }

    void Add(Transfer& transfer) {
        transfer.next = nullptr;
        (m_last != nullptr ? m_last->next : m_first) = &transfer;
        m_last = &transfer;
    }

    /// Takes the first; null when there is none.
    Transfer* Take() {
        Transfer* const first = m_first;
        if (first != nullptr)
            m_first = first->next;
        if (m_first == nullptr)
            m_last = nullptr;
        return first;
    }

  private:
    Transfer* m_first = nullptr;
    Transfer* m_last = nullptr;
};
