#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tools/targetcli/CommandLine.h"

/// The kernel's storage objects, each in an HBA's directory: core/PLUGIN_INDEX/NAME.

struct StorageObject {
    std::filesystem::path directory;
    std::string plugin;
    std::string name;

    std::string Serial() const;
    std::string UdevPath() const;
    bool Enabled() const;
    /// The value that follows `label` in the kernel's `info`, up to a blank; empty without it.
    std::string Info(const std::string& label) const;
};

/// All of them. Throws SlowRoad at an HBA's directory that doesn't hold just one.
std::vector<StorageObject> StorageObjects(const std::filesystem::path& root);

/// Those of a kind and name that a command line asks for: with a handler, only what is its.
/// Returns: nothing when there is none. Throws SlowRoad when there are several.
std::optional<StorageObject> FindObject(const std::vector<StorageObject>& objects,
                                        const CommandLine& line);

/// A new HBA's directory: its index is the lowest that no HBA of any plugin has.
std::filesystem::path NewHba(const std::filesystem::path& root, const BackstoreKind& kind);
