#pragma once

#include <cstdint>
#include <string>

#include "framework/UniqueFd.h"

/// The open and locked file behind a LUN.
class BackingFile {
  public:
    /// Opens the file at `path`, or makes it with `size` bytes of zeros (NewFile). Its blocks
    /// aren't allocated: writes may meet a full disk, and then fail. Returns: false with one line
    /// in `error` when the file can't be used or isn't ours to use.
    bool Open(const std::string& path, uint64_t size, std::string& error);

    int Fd() const { return m_file.Get(); }
    /// Whether Open made the file.
    bool Made() const { return m_made; }

  private:
    bool OpenExisting(const std::string& path, uint64_t size, std::string& error);
    bool Create(const std::string& path, uint64_t size, std::string& error);
    bool MakeBlocking(const std::string& path, std::string& error);
    bool Lock(const std::string& path, std::string& error);

    UniqueFd m_file;
    bool m_made = false;
};
