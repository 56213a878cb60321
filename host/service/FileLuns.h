#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/data/BackingFile.h"
#include "host/kernel/ConfigfsView.h"
#include "host/service/LunNumbers.h"
#include "host/service/LunRecord.h"

/// What a run of `serve` owes to the files of its LUNs: nobody else writes to them, those that are
/// missing are told, and all are on record before an initiator sees them.
/// Thread: one. The plan outlives it.
class FileLuns {
  public:
    FileLuns(const Plan& plan, const std::filesystem::path& stateDirectory)
        : m_plan(plan), m_record(stateDirectory) {}

    /// Returns: two lines for each LUN whose file is missing: what to ask first, and what becomes
    /// of it.
    std::vector<std::string> Missing(const ConfigfsView& before) const;

    /// Locks the files that the kernel serves; the others are locked by who serves them.
    /// Returns: empty, or one line.
    std::string LockKernelFiles();

    /// Puts the LUNs that are served on record, with their numbers as far as `given` knows them.
    /// Returns: empty, or one line.
    std::string Note(const ConfigfsView& before, const NumberOfLun& given);

    /// The number that a LUN had when it was last served. Requires: Note.
    std::optional<uint32_t> FormerNumber(const LunPlan& lun) const {
        return m_record.NumberOf(lun);
    }

  private:
    const Plan& m_plan;
    LunRecord m_record;
    std::vector<BackingFile> m_kernelFiles;
};
