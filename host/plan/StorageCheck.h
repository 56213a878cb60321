#pragma once

#include <string>

#include "host/plan/Plan.h"

/// What holds a LUN's data.
enum class Medium { Memory, File, Device };

Medium MediumOf(const LunConfig& lun);

/// Checks sizes, files and devices of LUNs, none of which may be used twice.
/// Thread: one at a time. What it is made from outlives it.
class StorageCheck {
  public:
    StorageCheck(const Storage& storage, Problems& problems)
        : m_storage(storage), m_problems(problems) {}

    /// Checks what holds the LUN's data, and notes in the plan what it is: size, identity, device,
    /// whether the file is missing.
    /// Requires: the path is good as a text.
    void Check(LunPlan& plan);

  private:
    void CheckFile(const PathFacts& facts, LunPlan& plan);
    void CheckMemory(const LunPlan& plan);
    void CheckWritable(const LunPlan& plan);
    void CheckDevice(const PathFacts& facts, LunPlan& plan);

    void Refuse(const LunPlan& plan, const char* key, const std::string& text) {
        m_problems.Add(plan.config.places.At(key), text);
    }

    const Storage& m_storage;
    Problems& m_problems;
    Once m_used;
    uint64_t m_memory = 0;  ///< of all memory LUNs so far
};
