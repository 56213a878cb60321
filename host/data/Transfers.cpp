#include "host/data/Transfers.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <new>

#include "util/Log.h"

namespace {

constexpr size_t kBuffersReserved = 16;  // the most that a context carries
constexpr unsigned kGenerationShift = 32;
constexpr Ticket kPlaceMask = (Ticket{1} << kGenerationShift) - 1;
constexpr Ticket kNextGeneration = Ticket{1} << kGenerationShift;

/// Copies the record's list up to `limit` bytes, without empty buffers. Returns: the bytes.
uint64_t CopyBuffers(const MoScsiSrvIO& record, uint64_t limit, std::vector<iovec>& out) {
    uint64_t total = 0;
    for (int64_t i = 0; i < record.iovcnt && total < limit; ++i) {
        const size_t part = std::min<uint64_t>(record.iov[i].iov_len, limit - total);
        if (part == 0)
            continue;
        out.push_back({record.iov[i].iov_base, part});
        total += part;
    }
    return total;
}

}  // namespace

int64_t Transfer::Refusal() const {
    if (aborted)
        return -ECANCELED;
    const bool late = beginBefore != Clock::time_point::max() && Clock::now() >= beginBefore;
    return late ? -ETIMEDOUT : 0;
}

void Transfer::Advance(uint64_t bytes) {
    bytes = std::min(bytes, wanted - done);
    done += bytes;
    while (bytes > 0) {
        iovec& buffer = iov[firstBuffer];
        const size_t part = std::min<uint64_t>(bytes, buffer.iov_len);
        buffer.iov_base = static_cast<char*>(buffer.iov_base) + part;
        buffer.iov_len -= part;
        bytes -= part;
        if (buffer.iov_len == 0)
            ++firstBuffer;
    }
}

Transfer* Transfers::Open(MoScsiSrvIO* ioctx, bool write, uint64_t backingSize, uint64_t limit) {
    m_mutex.lock();
    Transfer* const taken = m_shut ? nullptr : TakeFreeLocked();
    if (taken == nullptr) {
        const int64_t refusal = m_shut ? -ESHUTDOWN : -ENOMEM;
        m_mutex.unlock();
        GiveBack(m_platform, ioctx, refusal);
        return nullptr;
    }
    Transfer& transfer = *taken;
    transfer.write = write;
    transfer.offset = ioctx->offset;
    transfer.done = 0;
    transfer.firstBuffer = 0;
    transfer.failure = 0;
    transfer.aborted = false;
    transfer.beginBefore = Transfer::Clock::time_point::max();
    transfer.ioctx = ioctx;
    transfer.asked = ioctx->length;
    const uint64_t within = ioctx->offset < backingSize ? backingSize - ioctx->offset : 0;
    transfer.iov.clear();
    transfer.wanted = CopyBuffers(*ioctx, std::min({ioctx->length, within, limit}), transfer.iov);
    if (write && transfer.wanted > 0)
        m_order.Add(transfer.order, transfer.offset, transfer.offset + transfer.wanted);
    ++(write ? m_counters.writes : m_counters.reads);
    ++m_counters.onLoan;
    m_mutex.unlock();
    return &transfer;
}

Transfer* Transfers::TakeFreeLocked() {
    if (m_free.empty()) {
        try {
            m_free.reserve(m_places.size() + 1);  // no end of a transfer needs memory then
            Transfer& fresh = m_places.emplace_back();
            fresh.ticket = m_places.size() - 1;
            m_free.push_back(fresh.ticket);
            fresh.iov.reserve(kBuffersReserved);
        } catch (const std::bad_alloc&) {
            return nullptr;
        }
    }
    Transfer* const transfer = &m_places[m_free.back()];
    m_free.pop_back();
    return transfer;
}

void Transfers::GiveBack(MoScsiSrvPlatform& platform, MoScsiSrvIO* ioctx, int64_t result) {
    try {
        platform.IODone(ioctx, result);
    } catch (const std::exception& fault) {
        MO_LOG(kLogError, "the end of context %p was refused: %s", static_cast<void*>(ioctx),
               fault.what());
    }
}

void Transfers::SetCommandTimeOut(std::chrono::milliseconds timeOut) {
    m_waitLimit = timeOut.count() == 0 ? Transfer::Clock::duration::max()
                                       : Transfer::Clock::duration(timeOut) / 10 * 9;
}

void Transfers::LimitWait(Transfer& transfer) const {
    const Transfer::Clock::duration limit = m_waitLimit;
    if (transfer.beginBefore == Transfer::Clock::time_point::max() &&
        limit != Transfer::Clock::duration::max())
        transfer.beginBefore = Transfer::Clock::now() + limit;
}

Transfer* Transfers::FindLocked(Ticket ticket) {
    const size_t place = ticket & kPlaceMask;
    if (place >= m_places.size())
        return nullptr;
    Transfer& transfer = m_places[place];
    return transfer.ioctx != nullptr && transfer.ticket == ticket ? &transfer : nullptr;
}

Transfer* Transfers::Find(Ticket ticket) {
    const MutexGuard guard(m_mutex);
    return FindLocked(ticket);
}

void Transfers::Finish(Ticket ticket, int64_t result) {
    m_mutex.lock();
    Transfer* const transfer = FindLocked(ticket);
    if (transfer == nullptr) {
        ++m_counters.ignoredCompletions;
        m_mutex.unlock();
        MO_LOG(kLogError, "%s: a transfer ended twice, the second end (%ld) is ignored",
               m_name.c_str(), static_cast<long>(result));
        return;
    }
    MoScsiSrvIO* const ioctx = transfer->ioctx;
    MoScsiSrvPlatform& platform = m_platform;  // Stop may end this object once we unlock
    if (result > 0)
        (transfer->write ? m_counters.bytesWritten : m_counters.bytesRead) += result;
    if (static_cast<uint64_t>(result) != transfer->asked)
        ++m_counters.errors;
    if (const int failure = result < 0 ? static_cast<int>(-result) : transfer->failure)
        LogFailureLocked(transfer->write, failure);
    --m_counters.onLoan;
    // Under the mutex: those that wait are on loan, so this object and the room are still there.
    if (transfer->write && transfer->wanted > 0 && m_order.Remove(transfer->order))
        m_freed();
    transfer->ioctx = nullptr;
    transfer->ticket += kNextGeneration;
    m_free.push_back(ticket & kPlaceMask);
    if (m_shut)
        m_returned.notify_all();
    m_mutex.unlock();
    // From here on the context may be lent again, also to us.
    GiveBack(platform, ioctx, result);
}

void Transfers::LogFailureLocked(bool write, int number) {
    try {
        const std::string line = m_failures.Note(write, number, FailureLog::Clock::now());
        if (!line.empty())
            MO_LOG(kLogError, "%s", line.c_str());
    } catch (const std::bad_alloc&) {
        return;  // the transfer ends all the same
    }
}

bool Transfers::MarkAborted(MoScsiSrvIO* ioctx) {
    const MutexGuard guard(m_mutex);
    const auto found = std::find_if(m_places.begin(), m_places.end(), [&](const Transfer& each) {
        return each.ioctx == ioctx && ioctx != nullptr;
    });
    if (found == m_places.end()) {
        ++m_counters.unknownAborts;
        return false;
    }
    ++m_counters.aborted;
    found->aborted = true;
    return true;
}

void Transfers::Shut() {
    const MutexGuard guard(m_mutex);
    m_shut = true;
    for (Transfer& each : m_places)
        each.aborted = true;
}

void Transfers::WaitUntilEmpty() {
    const MutexGuard guard(m_mutex);
    while (m_counters.onLoan != 0)
        m_returned.wait(m_mutex);
}

void Transfers::CountFault() {
    const MutexGuard guard(m_mutex);
    ++m_counters.faults;
}

LunStatistics Transfers::Counters() const {
    const MutexGuard guard(m_mutex);
    LunStatistics statistics = m_counters;
    statistics.failures = m_failures.Counts();
    return statistics;
}
