#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// What the kernel's target shows in configfs, read at one moment. Plain data: whatever vanishes
/// while it is read is left out.
///
/// Layout as the kernel makes it (Documentation/target/tcm_mod_builder.rst, and seen on Linux 6.1):
/// storage objects at core/HBA/NAME, LUNs at iscsi/TARGET/tpgt_TAG/lun/lun_N with one link to their
/// object, node ACLs at acls/INITIATOR with one directory a mapped LUN that links to the LUN.

struct StorageObject {
    std::string hba;   ///< "fileio_0"; its number isn't stable
    std::string kind;  ///< "fileio", "iblock", "user", ...
    std::string name;
    std::filesystem::path directory;
    bool enabled = false;
    std::string path;              ///< udev_path
    std::string config;            ///< of a user backstore: "HANDLER/REST"
    std::optional<uint64_t> size;  ///< bytes; of an iblock from sysfs
    std::optional<dev_t> device;   ///< of an iblock
    bool readOnly = false;
    std::string serial;
    std::optional<uint64_t> commandTimeOut;  ///< seconds, of a user backstore; zero: without end

    /// "fileio/NAME (PATH)".
    std::string Text() const;

    /// The command that removes it.
    std::string Removal() const;
};

struct LunView {
    unsigned number = 0;
    std::filesystem::path directory;
    std::string linkName;
    std::string hba;     ///< of the object; empty: no link, a half-made LUN
    std::string object;  ///< its name
};

struct MappedLunView {
    unsigned number = 0;
    std::optional<unsigned> lun;  ///< of the portal group; absent: half-made
    bool writeProtected = false;
};

struct AclView {
    std::string initiator;
    std::vector<MappedLunView> luns;
};

struct PortalGroupView {
    unsigned tag = 0;
    bool enabled = false;
    bool opensLater = false;    ///< not enabled, and the reader knows that it is to be
    bool admitsAnyone = false;  ///< generate_node_acls
    std::vector<LunView> luns;
    std::vector<AclView> acls;
    std::vector<std::string> portals;  ///< "0.0.0.0:3260", "[::0]:3260"
};

struct TargetView {
    std::string name;
    std::vector<PortalGroupView> groups;
};

struct ConfigfsView {
    std::vector<StorageObject> objects;
    std::vector<TargetView> targets;

    /// Each returns null when there is none.
    const StorageObject* Object(const std::string& hba, const std::string& name) const;
    const TargetView* Target(const std::string& name) const;
};

/// Reads the tree below `root` (/sys/kernel/config/target); device sizes come from `sysBlock`
/// (/sys/dev/block). A missing tree is an empty one.
/// Thread: any. Only reads.
ConfigfsView ReadConfigfs(const std::filesystem::path& root,
                          const std::filesystem::path& sysBlock = "/sys/dev/block");
