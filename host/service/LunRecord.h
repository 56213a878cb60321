#pragma once

#include <cstdint>
#include <filesystem>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "framework/UniqueFd.h"
#include "host/plan/Plan.h"

/// Which LUNs on files were ever made or served on this machine, and under which numbers: what
/// tells a file that is out of sight from one that never was. A small text file, one line a LUN,
/// that outlives reboots.
///
/// A LUN's identity is its target and path, from which object name and serial are made, and the 25
/// digits of its serial that initiators go by: who agrees in either is the same disk to somebody.
///
/// Thread: one at a time; other processes may use the same file.
class LunRecord {
  public:
    /// A LUN, and the number that it has now.
    using Noted = std::pair<const LunPlan*, std::optional<uint32_t>>;

    explicit LunRecord(std::filesystem::path directory) : m_directory(std::move(directory)) {}

    /// Reads the file; a missing one is an empty record.
    /// Returns: empty, or one line that says what is wrong with it.
    std::string Read();

    bool Knows(const LunPlan& lun) const;

    /// The last number under which the LUN was served.
    std::optional<uint32_t> NumberOf(const LunPlan& lun) const;

    /// Adds LUNs, or notes new numbers; one without a number keeps what was noted. On stable
    /// storage when this returns, and atomic. Nothing is written when all of it is there.
    /// Returns: empty, or one line; the file is as it was then.
    std::string Note(const std::vector<Noted>& luns);

    /// Takes LUNs out: they weren't made in the end.
    std::string Forget(const std::vector<const LunPlan*>& luns);

  private:
    struct Entry {
        std::string naa;
        std::optional<uint32_t> number;
        bool operator==(const Entry& other) const = default;
    };
    using Entries = std::map<std::pair<std::string, std::string>, Entry>;  ///< by target and path

    std::filesystem::path File() const { return m_directory / "luns"; }
    std::string Begin(UniqueFd& lock);
    std::string Write(const Entries& entries, const UniqueFd& directory);

    const std::filesystem::path m_directory;
    Entries m_entries;
};
