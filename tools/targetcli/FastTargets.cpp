#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/FastForms.h"
#include "tools/targetcli/PortalGroup.h"

namespace {

namespace fs = std::filesystem;

constexpr char kPortal[] = "0.0.0.0:3260";  // all IPv4 addresses, the standard port

// The kernel shares one portal among all groups, but not one address of the same port.
bool TakesPart(const std::string& portal) {
    return portal != kPortal && portal.ends_with(":3260");
}

void RequireFreePortal(const fs::path& root) {
    for (const std::string& target : DirectoriesIn(root / "iscsi"))
        for (const std::string& group : DirectoriesIn(root / "iscsi" / target))
            for (const std::string& portal : DirectoriesIn(root / "iscsi" / target / group / "np"))
                Require(!TakesPart(portal), "a portal on a part of the addresses");
}

// Whatever a target holds, in the order of its removal.
std::vector<fs::path> ContentsOf(const fs::path& group) {
    std::vector<fs::path> contents;
    for (const std::string& acl : DirectoriesIn(group / "acls")) {
        for (const Mapping& mapping : MappingsOf(group / "acls" / acl))
            contents.insert(contents.end(), {mapping.link, mapping.directory});
        contents.push_back(group / "acls" / acl);
    }
    for (const fs::path& lun : LunsOf(group))
        contents.insert(contents.end(), {lun / LinksIn(lun)[0], lun});
    for (const std::string& portal : DirectoriesIn(group / "np")) {
        for (const char* transport : {"iser", "cxgbit"}) {
            const std::string on = FirstLineOf(group / "np" / portal / transport);
            Require(on.empty() || on == "0", "a portal of another transport");
        }
        contents.push_back(group / "np" / portal);
    }
    contents.insert(contents.end(), {group, group.parent_path()});
    return contents;
}

Answer MakeTarget(const CommandLine& line, const fs::path& root, bool open) {
    const fs::path target = root / "iscsi" / line.target;
    const fs::path group = target / "tpgt_1";
    if (access(target.c_str(), F_OK) == 0) {
        const bool same = (!open || FirstLineOf(group / "enable") == "1") &&
                          FirstLineOf(group / "attrib/authentication") == "0" &&
                          access((group / "np" / kPortal).c_str(), F_OK) == 0;
        Require(same, "the target is there and differs");
        return {kStatusAlreadyThere, "", "This Target already exists in configFS\n"};
    }
    RequireFreePortal(root);

    ConfigfsChange change;
    change.MakeDirectory(target);
    change.MakeDirectory(group);
    if (open)
        change.Write(group / "enable", "1");
    change.Write(group / "attrib/authentication", "0");
    change.MakeDirectory(group / "np" / kPortal);
    return {0,
            "Created target " + line.target +
                ".\nCreated TPG 1.\nGlobal pref auto_add_default_portal=true\n"
                "Created default portal listening on all IPs (0.0.0.0), port 3260.\n",
            ""};
}

}  // namespace

Answer CreateTarget(const CommandLine& line, const fs::path& root) {
    return MakeTarget(line, root, true);
}

Answer CreateClosedTarget(const CommandLine& line, const fs::path& root) {
    return MakeTarget(line, root, false);
}

Answer DeleteTarget(const CommandLine& line, const fs::path& root) {
    const fs::path group = PortalGroup(root, line.target);
    const std::vector<fs::path> contents = ContentsOf(group);

    ConfigfsChange change;
    change.Write(group / "enable", "0");
    for (const fs::path& path : contents)
        change.Remove(path);
    return {0, "Deleted Target " + line.target + ".\n", ""};
}
