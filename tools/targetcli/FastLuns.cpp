#include <algorithm>
#include <set>

#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/FastForms.h"
#include "tools/targetcli/PortalGroup.h"
#include "tools/targetcli/StorageObjects.h"
#include "tools/targetcli/UserHandler.h"

namespace {

namespace fs = std::filesystem;

constexpr unsigned kHighestNumber = 255;

unsigned LowestFree(const std::vector<fs::path>& luns) {
    std::set<unsigned> taken;
    for (const fs::path& lun : luns)
        taken.insert(LunNumber(lun));
    unsigned number = 0;
    while (taken.contains(number))
        ++number;
    Require(number <= kHighestNumber, "no number is free");
    return number;
}

const char* ListedKind(const std::string& plugin) {
    for (const BackstoreKind* kind : {&kFileBackstore, &kBlockBackstore, &kUserBackstore})
        if (plugin == kind->plugin)
            return kind->listed;
    throw SlowRoad("a LUN of another kind");
}

// "fileio/NAME (/path) (default_tg_pt_gp)"; a user backstore has no path.
std::string Description(const fs::path& lun) {
    const fs::path directory = OnlyLinkIn(lun);
    const std::string hba = directory.parent_path().filename();
    const StorageObject object = {directory, hba.substr(0, hba.rfind('_')), directory.filename()};
    Require(object.Enabled(), "a LUN of an object that isn't enabled");
    Require(FirstLineOf(lun / "alua_tg_pt_gp") == "TG Port Alias: default_tg_pt_gp",
            "a LUN of another port group");
    std::string text = std::string(ListedKind(object.plugin)) + "/" + object.name;
    if (object.plugin != kUserBackstore.plugin)
        text += " (" + object.UdevPath() + ")";
    return text + " (default_tg_pt_gp)";
}

// One line of targetcli's lists, as it prints them where no terminal tells a width: dots fill what
// the text and its description in brackets leave of 132 columns, and may be none.
std::string ListLine(const std::string& text, const std::string& description) {
    constexpr size_t kColumns = 132;
    constexpr size_t kAround = 4;  // a blank on either side of the dots, and the brackets
    const size_t taken = text.size() + description.size() + kAround;
    const std::string dots(taken < kColumns ? kColumns - taken : 0, '.');
    return text + " " + dots + " [" + description + "]\n";
}

}  // namespace

Answer CreateLun(const CommandLine& line, const fs::path& root) {
    const fs::path group = PortalGroup(root, line.target);
    const std::vector<fs::path> luns = LunsOf(group);
    RequireUserHandler(line);
    const auto object = FindObject(StorageObjects(root), line);
    Require(object && object->Enabled(), "no such storage object that is enabled");

    for (const fs::path& lun : luns) {
        if (OnlyLinkIn(lun) == object->directory) {
            Require(!line.number || line.number == LunNumber(lun), "it is a LUN of another number");
            return {kStatusAlreadyThere, "",
                    "lun for storage object " + std::string(line.kind->listed) + "/" + line.object +
                        " already exists\n"};
        }
    }
    const unsigned number = line.number ? static_cast<unsigned>(*line.number) : LowestFree(luns);
    const fs::path lun = group / "lun" / ("lun_" + std::to_string(number));
    Require(access(lun.c_str(), F_OK) != 0, "the number is taken");

    ConfigfsChange change;
    change.MakeDirectory(lun);
    change.MakeLink(object->directory, lun);
    return {0, "Created LUN " + std::to_string(number) + ".\n", ""};
}

Answer DeleteLun(const CommandLine& line, const fs::path& root) {
    const fs::path group = PortalGroup(root, line.target);
    const fs::path lun = group / "lun" / ("lun_" + std::to_string(*line.number));
    const std::vector<fs::path> luns = LunsOf(group);
    Require(std::find(luns.begin(), luns.end(), lun) != luns.end(), "no such LUN");

    std::vector<fs::path> doomed;
    for (const std::string& acl : DirectoriesIn(group / "acls"))
        for (const Mapping& mapping : MappingsOf(group / "acls" / acl))
            if (mapping.lun == lun)
                doomed.insert(doomed.end(), {mapping.link, mapping.directory});
    doomed.insert(doomed.end(), {lun / LinksIn(lun)[0], lun});

    ConfigfsChange change;
    for (const fs::path& path : doomed)
        change.Remove(path);
    return {0, "Deleted LUN " + std::to_string(*line.number) + ".\n", ""};
}

Answer ListLuns(const CommandLine& line, const fs::path& root) {
    const std::vector<fs::path> luns = LunsOf(PortalGroup(root, line.target));
    std::string out = ListLine("o- luns", "LUNs: " + std::to_string(luns.size()));
    for (const fs::path& lun : luns)
        out += ListLine("  o- lun" + std::to_string(LunNumber(lun)), Description(lun));
    return {0, out, ""};
}
