#include <algorithm>

#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/FastForms.h"
#include "tools/targetcli/PortalGroup.h"

namespace {

namespace fs = std::filesystem;

fs::path ExistingAcl(const CommandLine& line, const fs::path& root) {
    fs::path acl = PortalGroup(root, line.target) / "acls" / line.initiator;
    Require(access(acl.c_str(), F_OK) == 0, "no such ACL");
    return acl;
}

std::string LunName(const CommandLine& line) {
    return "lun_" + std::to_string(*line.number);
}

}  // namespace

Answer CreateAcl(const CommandLine& line, const fs::path& root) {
    const fs::path group = PortalGroup(root, line.target);
    const fs::path acl = group / "acls" / line.initiator;
    Require(FirstLineOf(group / "attrib/generate_node_acls") == "0", "a group that needs no ACLs");
    if (access(acl.c_str(), F_OK) == 0) {
        RequireUntagged(acl);
        return {kStatusAlreadyThere, "", "This NodeACL already exists in configFS\n"};
    }
    ConfigfsChange change;
    change.MakeDirectory(acl);
    return {0, "Created Node ACL for " + line.initiator + "\n", ""};
}

Answer CreateMapping(const CommandLine& line, const fs::path& root) {
    const fs::path acl = ExistingAcl(line, root);
    const fs::path lun = acl.parent_path().parent_path() / "lun" / LunName(line);
    const fs::path object = OnlyLinkIn(lun);
    Require(!object.empty(), "no such LUN");
    // What targetcli makes of a read-only device isn't known here.
    Require(ReadSmallFile(object / "info").value_or("").find("readonly: 1") == std::string::npos,
            "a read-only device");

    const std::string number = std::to_string(*line.number);
    for (const Mapping& mapping : MappingsOf(acl)) {
        const bool sameNumber = mapping.directory.filename() == lun.filename();
        if (sameNumber && mapping.lun == lun &&
            FirstLineOf(mapping.directory / "write_protect") == "0")
            return {kStatusAlreadyThere,
                    "Warning: TPG LUN " + number + " already mapped to this NodeACL\n",
                    "This MappedLUN already exists in configFS\n"};
        Require(!sameNumber && mapping.lun != lun, "another mapping is there");
    }
    ConfigfsChange change;
    change.MakeDirectory(acl / lun.filename());
    change.MakeLink(lun, acl / lun.filename());
    change.Write(acl / lun.filename() / "write_protect", "0");
    return {0, "Created Mapped LUN " + number + ".\n", ""};
}

Answer DeleteMapping(const CommandLine& line, const fs::path& root) {
    for (const Mapping& mapping : MappingsOf(ExistingAcl(line, root))) {
        if (mapping.directory.filename() != LunName(line))
            continue;
        ConfigfsChange change;
        change.Remove(mapping.link);
        change.Remove(mapping.directory);
        return {0, "Deleted Mapped LUN " + std::to_string(*line.number) + ".\n", ""};
    }
    throw SlowRoad("no such mapping");
}
