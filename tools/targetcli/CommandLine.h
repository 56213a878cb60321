#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

/// The command lines that the plug-in issues, and no others: only these may take the fast road.

enum class Form {
    kVersion,
    kTargetCreate,
    kClosedTargetCreate,  ///< a target create, by who asks for closed ones
    kTargetDelete,
    kAclCreate,
    kMappingCreate,
    kMappingDelete,
    kFileCreate,
    kBlockCreate,
    kUserCreate,
    kBackstoreDelete,
    kLunCreate,
    kLunDelete,
    kLunList,
};

/// A kind of backstore, as targetcli and as the kernel call it.
struct BackstoreKind {
    const char* listed;  ///< in targetcli's lists: "block"
    const char* plugin;  ///< of the directory core/PLUGIN_INDEX: "iblock"
};
extern const BackstoreKind kFileBackstore;
extern const BackstoreKind kBlockBackstore;
extern const BackstoreKind kUserBackstore;

/// A command line of a known form; what its form doesn't have is empty.
struct CommandLine {
    Form form = Form::kVersion;
    const char* name = "";  ///< of the form, for people
    const BackstoreKind* kind = nullptr;
    std::string target;
    std::string initiator;
    std::string handler;  ///< of a user backstore: its D-Bus object and the kernel's sub-type
    std::string object;   ///< the storage object's name
    std::string path;     ///< of a file or block device
    std::string config;   ///< of a user backstore
    std::string serial;
    std::optional<uint64_t> size;    ///< bytes
    std::optional<uint64_t> number;  ///< of the LUN, 0 to 255

    /// Returns: nothing for any other line: another order of words, another spelling of a number, a
    /// name that targetcli might read in its own way.
    static std::optional<CommandLine> Parse(const std::vector<std::string>& arguments);
};
