#pragma once

#include <cstdint>
#include <string>

#include "framework/UniqueFd.h"
#include "host/data/Provisioning.h"

/// Makes a backing file of zeros, whole or not at all. It gets its name when it has its size and is
/// on stable storage. Never replaces, empties or removes a file that it didn't make. Thread: one at
/// a time.
class NewFile {
  public:
    NewFile() = default;
    /// Removes what has no name yet.
    ~NewFile();
    NewFile(const NewFile&) = delete;
    NewFile& operator=(const NewFile&) = delete;

    /// Makes the file in the directory of `path`: without a name, or, where the file system can't
    /// have that, under a random one (".moscsi-XXXXXX"), which a crash leaves behind.
    /// Returns: false with one line in `error`.
    bool Make(const std::string& path, uint64_t size, Provisioning provisioning,
              std::string& error);

    /// Gives it its name, which is on stable storage when this returns. A file that has the name
    /// already stays, and is an error. Requires: Make succeeded.
    /// Returns: false with one line in `error`; the name isn't there then, or isn't ours.
    bool Publish(std::string& error);

    /// Removes what Publish named, unless the name leads to another file by now.
    void Withdraw();

  private:
    bool OpenDraft();
    bool Reserve(uint64_t size, std::string& error);

    std::string m_path;
    std::string m_directory;
    std::string m_draft;  ///< the random name; empty: none
    UniqueFd m_file;
};
