#include "libtcmu/Doorbell.h"

#include <unistd.h>

#include <cerrno>

namespace {

// One word says what the kernel hasn't been told yet and who is about to tell it: two flags, then
// the number of answers, then their READ data in blocks of 512 bytes. Every change is one atomic
// step, so an answer is either taken by the thread that writes now or seen by the next to look.
constexpr uint64_t kDraining = 1;  // EndDrain will ring
constexpr uint64_t kRinging = 2;   // a thread is in write(), and looks again before it leaves
constexpr uint64_t kFlags = kDraining | kRinging;
constexpr unsigned kAnswersShift = 8;
constexpr uint64_t kAnswersMask = 0xFFFFFF;
constexpr unsigned kBlocksShift = 32;
constexpr size_t kBlock = 512;

bool IsDue(uint64_t state) {
    const uint64_t answers = (state >> kAnswersShift) & kAnswersMask;
    const uint64_t readBytes = (state >> kBlocksShift) * kBlock;
    if (answers == 0)
        return false;
    return (state & kDraining) == 0 || answers >= Doorbell::kMostAnswers ||
           readBytes >= Doorbell::kMostReadBytes;
}

}  // namespace

void Doorbell::Owe(size_t readBytes) {
    m_state.fetch_add((uint64_t{1} << kAnswersShift) |
                      (uint64_t{readBytes / kBlock} << kBlocksShift));
}

void Doorbell::Ring() {
    uint64_t state = m_state.load();
    do {
        if ((state & kRinging) != 0 || !IsDue(state))
            return;
    } while (!m_state.compare_exchange_weak(state, (state & kFlags) | kRinging));

    for (;;) {
        Write();
        state = m_state.load();
        uint64_t next = 0;
        do {
            next = IsDue(state) ? state & kFlags : state & ~kRinging;
        } while (!m_state.compare_exchange_weak(state, next));
        if ((next & kRinging) == 0)
            return;
    }
}

void Doorbell::BeginDrain() {
    m_state.fetch_or(kDraining);
}

void Doorbell::EndDrain() {
    m_state.fetch_and(~kDraining);
    Ring();
}

void Doorbell::Write() {
    const uint32_t anything = 0;
    ssize_t written = 0;
    do {
        written = write(m_uioFd, &anything, sizeof(anything));
    } while (written < 0 && errno == EINTR);
    // A doorbell that fails loses nothing: the answers stand in the ring, and the next one tells
    // them. It fails for good once the kernel has removed the device.
    m_written.fetch_add(1, std::memory_order_relaxed);
    if (written < 0)
        m_failed.fetch_add(1, std::memory_order_relaxed);
}
