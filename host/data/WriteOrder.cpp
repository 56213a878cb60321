#include "host/data/WriteOrder.h"

bool WriteOrder::Share(const Place& one, const Place& other) {
    return one.m_begin < other.m_end && other.m_begin < one.m_end;
}

void WriteOrder::Add(Place& place, uint64_t begin, uint64_t end) {
    place.m_begin = begin;
    place.m_end = end;
    place.m_behind = 0;
    size_t before = 0;
    for (Place* each = m_newest; each != nullptr; each = each->m_earlier) {
        if (Share(*each, place)) {
            ++before;
            ++each->m_behind;
        }
    }
    place.m_before.store(before, std::memory_order_relaxed);
    place.m_earlier = m_newest;
    place.m_later = nullptr;
    if (m_newest != nullptr)
        m_newest->m_later = &place;
    m_newest = &place;
}

bool WriteOrder::Remove(Place& place) {
    bool freed = false;
    for (Place* each = place.m_later; place.m_behind != 0; each = each->m_later) {
        if (!Share(*each, place))
            continue;
        --place.m_behind;
        freed |= each->m_before.fetch_sub(1, std::memory_order_acq_rel) == 1;
    }
    // It may end without having begun, before those that it waited for.
    size_t before = place.m_before.exchange(0, std::memory_order_relaxed);
    for (Place* each = place.m_earlier; before != 0; each = each->m_earlier) {
        if (!Share(*each, place))
            continue;
        --before;
        --each->m_behind;
    }
    (place.m_later != nullptr ? place.m_later->m_earlier : m_newest) = place.m_earlier;
    if (place.m_earlier != nullptr)
        place.m_earlier->m_later = place.m_later;
    return freed;
}
