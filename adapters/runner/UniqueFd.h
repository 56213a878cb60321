#pragma once

#include <unistd.h>

#include <utility>

/// Owns a file descriptor; negative means none.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : m_fd(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        std::swap(m_fd, other.m_fd);
        return *this;
    }
    ~UniqueFd() {
        if (m_fd >= 0)
            close(m_fd);
    }

    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }

  private:
    int m_fd;
};
