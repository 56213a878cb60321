#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <utility>

/// Owns a file descriptor; negative means none. Thread: one at a time.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(other.Release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~UniqueFd() { Close(); }

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }

    /// Closes early. Harmless when there is none; errno may change.
    void Close() {
        if (const int fd = Release(); fd >= 0)
            close(fd);
    }

    /// Gives the descriptor away. Returns: the descriptor, which is the caller's to close.
    int Release() { return std::exchange(m_fd, -1); }

  private:
    int m_fd;
};

/// Makes a pipe that no other child inherits. Returns: 0 or an errno. Thread: any.
inline int MakePipe(UniqueFd& readEnd, UniqueFd& writeEnd) {
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0)
        return errno;
    readEnd = UniqueFd(ends[0]);
    writeEnd = UniqueFd(ends[1]);
    return 0;
}
