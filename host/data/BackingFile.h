#pragma once

#include <cstdint>
#include <string>

#include "framework/UniqueFd.h"

/// The open and locked file behind a LUN.
class BackingFile {
  public:
    /// Opens the file at `path`, which is there and has `size` bytes: one that isn't is never made
    /// here, since its data may only be out of sight (NewFile makes files).
    /// Returns: false with one line in `error` when the file can't be used or isn't ours to use.
    bool Open(const std::string& path, uint64_t size, std::string& error);

    int Fd() const { return m_file.Get(); }

  private:
    bool CheckFile(const std::string& path, uint64_t size, std::string& error) const;
    bool MakeBlocking(const std::string& path, std::string& error);
    bool Lock(const std::string& path, std::string& error);

    UniqueFd m_file;
};
