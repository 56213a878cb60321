#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// The order of WRITEs on the same bytes: one begins when every earlier one that shares a byte with
/// it has ended, begun or not, held back by a fault or not. For an initiator sends again what the
/// kernel answered by time-out, and the earlier command's data must not land on the later one's.
///
/// A WRITE pays one walk over those that are unfinished, no lock and no heap. Where one waits that
/// may not begin yet, and for how long, is the waiting room's.
///
/// Thread: one at a time (Transfers' mutex), but for MayBegin.
class WriteOrder {
  public:
    /// One write's place. It stays where it is while it is in the order.
    class Place {
      public:
        /// Thread: any. Once true it stays so until the place is added again.
        bool MayBegin() const { return m_before.load(std::memory_order_acquire) == 0; }

      private:
        friend class WriteOrder;
        uint64_t m_begin = 0;
        uint64_t m_end = 0;
        Place* m_earlier = nullptr;
        Place* m_later = nullptr;
        size_t m_behind = 0;              ///< unfinished later ones that share bytes
        std::atomic<size_t> m_before{0};  ///< unfinished earlier ones that share bytes
    };

    WriteOrder() = default;
    WriteOrder(const WriteOrder&) = delete;
    WriteOrder& operator=(const WriteOrder&) = delete;

    /// A write of the bytes from `begin` to before `end`, at least one, has arrived.
    void Add(Place& place, uint64_t begin, uint64_t end);

    /// It has ended. Returns: true when another may begin that couldn't before.
    bool Remove(Place& place);

  private:
    static bool Share(const Place& one, const Place& other);

    Place* m_newest = nullptr;
};
