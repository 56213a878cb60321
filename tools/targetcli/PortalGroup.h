#pragma once

#include <filesystem>
#include <string>
#include <vector>

/// What one portal group holds, as far as it looks like the plug-in's own. Everything here throws
/// SlowRoad when it doesn't.

struct Mapping {
    std::filesystem::path directory;  ///< acls/INITIATOR/lun_N
    std::filesystem::path link;       ///< the link in it
    std::filesystem::path lun;        ///< where that leads: lun/lun_N of the group
};

/// The directory of the target's only portal group.
std::filesystem::path PortalGroup(const std::filesystem::path& root, const std::string& target);

/// All mappings of an ACL.
std::vector<Mapping> MappingsOf(const std::filesystem::path& acl);

/// Directories of the group's LUNs, by rising number.
std::vector<std::filesystem::path> LunsOf(const std::filesystem::path& group);

/// The number in "lun_N".
unsigned LunNumber(const std::filesystem::path& directory);

/// The ACL's directory, which has no tag: a tag gives it another place in targetcli's tree.
void RequireUntagged(const std::filesystem::path& acl);
