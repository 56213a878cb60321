#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

/// Tells the kernel that answers stand in the ring: a 4-byte write to the UIO descriptor, in which
/// the kernel copies the READ data out. Many answers share one: a thread that comes while another
/// writes leaves its answers to that one, and while the device's thread is draining it tells them
/// all at its end, unless they have become many.
/// Thread: any; BeginDrain and EndDrain on the device's thread.
class Doorbell {
  public:
    /// What a drain holds back at most, in bytes of READ data and in answers: the copies hold the
    /// kernel's device mutex, and an initiator waits.
    static constexpr size_t kMostReadBytes = size_t{256} * 1024;
    static constexpr uint32_t kMostAnswers = 64;

    /// `written` is raised by one with each write, `failed` with each that fails.
    Doorbell(int uioFd, std::atomic<uint64_t>& written, std::atomic<uint64_t>& failed)
        : m_uioFd(uioFd), m_written(written), m_failed(failed) {}

    /// Notes an answer that the kernel has to be told about; it stands in the ring already.
    void Owe(size_t readBytes);

    /// Tells what is owed, or leaves it to the thread that will.
    void Ring();

    void BeginDrain();
    void EndDrain();

  private:
    void Write();

    alignas(64) std::atomic<uint64_t> m_state{0};  // see Doorbell.cpp
    const int m_uioFd;
    std::atomic<uint64_t>& m_written;
    std::atomic<uint64_t>& m_failed;
};
