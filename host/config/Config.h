#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "host/config/Problems.h"
#include "host/data/Backing.h"
#include "host/data/EngineChoice.h"
#include "host/data/FaultPlan.h"
#include "host/data/Provisioning.h"

/// The configuration file as written: types are checked, meaning is not (host/plan/Plan.h does
/// that). docs/configuration.md describes the format. Plain data, copied freely.

enum class LunType { File, Block, User };

inline constexpr std::array kLunTypes{LunType::File, LunType::Block, LunType::User};

/// Its name, in the configuration file and for people.
constexpr const char* LunTypeName(LunType type) {
    switch (type) {
        case LunType::File:
            return "file";
        case LunType::Block:
            return "block";
        case LunType::User:
            return "user";
    }
    return nullptr;
}

/// Where each key of a table stands.
struct KeyPlaces {
    Place table;
    std::map<std::string, unsigned> lines;

    /// The key's place, or the table's when the key isn't there.
    Place At(const std::string& key) const;
};

struct LunConfig {
    KeyPlaces places;
    std::string name;  ///< how the file itself refers to the LUN
    LunType type = LunType::File;
    std::string path;
    std::optional<uint64_t> size;   ///< bytes
    std::optional<int64_t> number;  ///< absent: automatic
    std::string serialPrefix = "lun";
    Provisioning provisioning = Provisioning::Full;  ///< of a file, when it is made
    // Of user LUNs only:
    Backing backing = Backing::Memory;
    FileEngineChoice engine = FileEngineChoice::Auto;  ///< of a file
    FaultPlan faults;
};

struct InitiatorConfig {
    KeyPlaces places;
    std::string name;
    bool allLuns = false;
    std::vector<std::string> luns;  ///< names; unless allLuns
};

struct TargetConfig {
    KeyPlaces places;
    std::string name;
    std::vector<LunConfig> luns;
    std::vector<InitiatorConfig> initiators;
};

struct Config {
    std::string file;
    std::optional<int> logLevel;
    bool logToSyslog = false;
    std::vector<TargetConfig> targets;
};

/// Reads a configuration from text; `file` is its name in messages.
/// Returns: what could be read; it is complete only when `problems` stayed empty.
Config ParseConfig(const std::string& text, const std::string& file, Problems& problems);

/// The same from a file.
Config ReadConfig(const std::string& file, Problems& problems);

/// Reads "4096", "64KiB", "10 GiB" (B, KiB, MiB, GiB, TiB).
/// Returns: the bytes; nothing when the text is no such size or is beyond 2^63 - 1.
std::optional<uint64_t> ParseSize(const std::string& text);
