#include "tools/targetcli/PortalGroup.h"

#include <algorithm>
#include <charconv>

#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kLunPrefix = "lun_";

}  // namespace

fs::path PortalGroup(const fs::path& root, const std::string& target) {
    const fs::path directory = root / "iscsi" / target;
    std::error_code failure;
    Require(fs::is_directory(directory / "tpgt_1", failure), "no such target");
    for (const std::string& name : DirectoriesIn(directory))
        Require(!name.starts_with("tpgt_") || name == "tpgt_1", "another portal group");
    return directory / "tpgt_1";
}

void RequireUntagged(const fs::path& acl) {
    const auto tag = ReadSmallFile(acl / "tag");
    Require(tag && tag->find_first_not_of(std::string("\n\0", 2)) == std::string::npos,
            "an ACL with a tag");
}

unsigned LunNumber(const fs::path& directory) {
    const std::string name = directory.filename();
    unsigned number = 0;
    const char* const end = name.data() + name.size();
    Require(name.starts_with(kLunPrefix) &&
                std::from_chars(name.data() + kLunPrefix.size(), end, number).ptr == end,
            "a LUN's directory with another name");
    return number;
}

std::vector<fs::path> LunsOf(const fs::path& group) {
    std::vector<fs::path> luns;
    for (const std::string& name : DirectoriesIn(group / "lun")) {
        luns.push_back(group / "lun" / name);
        Require(!OnlyLinkIn(luns.back()).empty(), "a LUN without its one link");
    }
    std::sort(luns.begin(), luns.end(), [](const fs::path& one, const fs::path& other) {
        return LunNumber(one) < LunNumber(other);
    });
    return luns;
}

std::vector<Mapping> MappingsOf(const fs::path& acl) {
    RequireUntagged(acl);
    std::vector<Mapping> mappings;
    for (const std::string& name : DirectoriesIn(acl)) {
        if (!name.starts_with(kLunPrefix))
            continue;
        const fs::path lun = OnlyLinkIn(acl / name);
        Require(!lun.empty() && lun.parent_path() == acl.parent_path().parent_path() / "lun",
                "a mapping without its one link");
        mappings.push_back({acl / name, acl / name / LinksIn(acl / name)[0], lun});
    }
    return mappings;
}
