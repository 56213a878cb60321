#pragma once

#include <filesystem>
#include <string>

/// A directory of one run's own, removed with everything in it at the end. Its name carries the
/// process that made it, so that what a killed wrapper left is removed by a later one.
///
/// Threads: used by one thread.
class TemporaryDirectory {
  public:
    TemporaryDirectory() = default;
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// Makes `parent`, if need be, and a directory in it.
    /// Returns: false and one line that says why not.
    bool Make(const std::filesystem::path& parent, std::string& error);

    const std::filesystem::path& Path() const { return m_path; }

    /// Gives the directory its final name; it isn't removed then. Returns: 0 or errno.
    int RenameTo(const std::filesystem::path& name);

  private:
    std::filesystem::path m_path;
};
