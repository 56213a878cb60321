#pragma once

#include <filesystem>
#include <optional>
#include <string>

/// The releases of targetcli that the fast road was proven equal with, known by the contents of all
/// their files. The scenario tests/vm/fast_road.sh proves it; the number of another release stands
/// in RoadLog.h's file once the wrapper has met it.

struct ProvenPackages {
    const char* version;  ///< what its `--version` says
};

/// What is installed: a number for the contents of program and modules.
/// `real`: the program's path; `modules`: the directory of Python's packages.
/// Returns: nothing when one can't be read.
std::optional<uint64_t> HashOfPackages(const std::filesystem::path& real,
                                       const std::filesystem::path& modules);

/// Returns: nothing for packages of any other contents.
std::optional<ProvenPackages> FindProvenPackages(uint64_t hash);
