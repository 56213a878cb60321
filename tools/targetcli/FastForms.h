#pragma once

#include <filesystem>
#include <string>

#include "tools/targetcli/CommandLine.h"

/// The forms of command lines, carried out in configfs as targetcli does: the same names, contents,
/// order and output. Each looks first whether it is certain to succeed, or finds the very object
/// that it was to make, and throws SlowRoad otherwise (ConfigfsChange.h), having changed nothing.
///
/// `root` is the kernel target's tree, without links in its path. Requires: targetcli's lock is
/// held. Threads: any; everything here may wait in the kernel, without limit.

/// What targetcli prints and how it ends.
struct Answer {
    int status = 0;
    std::string out;
    std::string err;
};
constexpr int kStatusAlreadyThere = 1;

Answer CreateTarget(const CommandLine& line, const std::filesystem::path& root);
/// The same with the portal group left closed (Settings::closedTargets).
Answer CreateClosedTarget(const CommandLine& line, const std::filesystem::path& root);
Answer DeleteTarget(const CommandLine& line, const std::filesystem::path& root);
Answer CreateAcl(const CommandLine& line, const std::filesystem::path& root);
Answer CreateMapping(const CommandLine& line, const std::filesystem::path& root);
Answer DeleteMapping(const CommandLine& line, const std::filesystem::path& root);
Answer CreateLun(const CommandLine& line, const std::filesystem::path& root);
Answer DeleteLun(const CommandLine& line, const std::filesystem::path& root);
Answer ListLuns(const CommandLine& line, const std::filesystem::path& root);
Answer CreateFile(const CommandLine& line, const std::filesystem::path& root);
Answer CreateBlock(const CommandLine& line, const std::filesystem::path& root);
Answer CreateUser(const CommandLine& line, const std::filesystem::path& root);
Answer DeleteBackstore(const CommandLine& line, const std::filesystem::path& root);
