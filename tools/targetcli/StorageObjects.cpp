#include "tools/targetcli/StorageObjects.h"

#include <algorithm>
#include <set>

#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"

namespace fs = std::filesystem;

std::string StorageObject::Serial() const {
    constexpr std::string_view kLabel = "T10 VPD Unit Serial Number: ";
    const std::string text = FirstLineOf(directory / "wwn/vpd_unit_serial");
    Require(text.starts_with(kLabel), "a serial of another form");
    return text.substr(kLabel.size());
}

std::string StorageObject::UdevPath() const {
    std::string path = FirstLineOf(directory / "udev_path");
    // targetcli looks elsewhere then; taken for no path, two objects could get one file.
    Require(!path.empty() || plugin == kUserBackstore.plugin,
            "an object that doesn't say its path");
    return path;
}

bool StorageObject::Enabled() const {
    return FirstLineOf(directory / "enable") == "1";
}

std::string StorageObject::Info(const std::string& label) const {
    const std::string text = ReadSmallFile(directory / "info").value_or("");
    const size_t at = text.find(label);
    if (at == std::string::npos)
        return {};
    const size_t begin = at + label.size();
    return text.substr(begin, text.find_first_of(" \n", begin) - begin);
}

std::vector<StorageObject> StorageObjects(const fs::path& root) {
    std::vector<StorageObject> objects;
    for (const std::string& hba : DirectoriesIn(root / "core")) {
        if (hba == "alua")
            continue;
        const std::vector<std::string> names = DirectoriesIn(root / "core" / hba);
        Require(names.size() == 1, "an HBA that doesn't hold just one object");
        objects.push_back(
            {root / "core" / hba / names[0], hba.substr(0, hba.rfind('_')), names[0]});
    }
    return objects;
}

std::optional<StorageObject> FindObject(const std::vector<StorageObject>& objects,
                                        const CommandLine& line) {
    std::optional<StorageObject> found;
    for (const StorageObject& object : objects) {
        if (object.plugin != line.kind->plugin || object.name != line.object)
            continue;
        Require(!found, "several objects of one name");
        Require(line.handler.empty() || object.Info("Config: ").starts_with(line.handler + "/"),
                "an object of another handler");
        found = object;
    }
    return found;
}

fs::path NewHba(const fs::path& root, const BackstoreKind& kind) {
    std::set<std::string> taken;
    for (const std::string& hba : DirectoriesIn(root / "core"))
        taken.insert(hba.substr(hba.rfind('_') + 1));
    unsigned index = 0;
    while (taken.contains(std::to_string(index)))
        ++index;
    return root / "core" / (std::string(kind.plugin) + "_" + std::to_string(index));
}
