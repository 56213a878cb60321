#include "host/kernel/ConfigfsView.h"

#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <charconv>
#include <sstream>

#include "framework/SmallFile.h"
#include "host/plan/Storage.h"

namespace {

namespace fs = std::filesystem;

std::string ReadText(const fs::path& file) {
    std::string result = ReadSmallFile(file).value_or("");
    while (!result.empty() && (result.back() == '\n' || result.back() == '\0'))
        result.pop_back();
    return result;
}

bool ReadFlag(const fs::path& file) {
    return ReadText(file) == "1";
}

std::vector<fs::path> Entries(const fs::path& directory) {
    std::vector<fs::path> entries;
    std::error_code ignored;
    for (fs::directory_iterator it(directory, ignored), end; it != end; it.increment(ignored)) {
        entries.push_back(it->path());
        if (ignored)
            break;
    }
    std::sort(entries.begin(), entries.end());
    return entries;
}

std::vector<fs::path> Directories(const fs::path& directory) {
    std::vector<fs::path> result;
    std::error_code ignored;
    for (const fs::path& entry : Entries(directory))
        if (fs::is_directory(fs::symlink_status(entry, ignored)))
            result.push_back(entry);
    return result;
}

/// The one link in a directory; its target as the kernel wrote it.
std::pair<std::string, fs::path> LinkIn(const fs::path& directory) {
    std::error_code ignored;
    for (const fs::path& entry : Entries(directory))
        if (fs::is_symlink(fs::symlink_status(entry, ignored)))
            return {entry.filename().string(), fs::read_symlink(entry, ignored)};
    return {};
}

/// The number behind a prefix: "lun_7".
std::optional<unsigned> NumberBehind(const std::string& text, const std::string& prefix) {
    unsigned number = 0;
    if (!text.starts_with(prefix))
        return std::nullopt;
    const char* const last = text.data() + text.size();
    const auto [end, fault] = std::from_chars(text.data() + prefix.size(), last, number);
    if (fault != std::errc() || end != last)
        return std::nullopt;
    return number;
}

/// The word behind "KEY" in an info text.
std::string WordBehind(const std::string& text, const std::string& key) {
    const size_t place = text.find(key);
    if (place == std::string::npos)
        return {};
    std::istringstream words(text.substr(place + key.size()));
    std::string word;
    words >> word;
    return word;
}

std::optional<uint64_t> NumberIn(const std::string& text) {
    uint64_t number = 0;
    const auto [end, fault] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (fault != std::errc())
        return std::nullopt;
    return number;
}

StorageObject ReadObject(const std::string& hba, const fs::path& directory,
                         const Storage& storage) {
    StorageObject object;
    object.hba = hba;
    object.kind = hba.substr(0, hba.rfind('_'));
    object.name = directory.filename().string();
    object.directory = directory;
    object.enabled = ReadFlag(directory / "enable");
    object.path = ReadText(directory / "udev_path");

    const std::string info = ReadText(directory / "info");
    object.readOnly = WordBehind(info, "readonly: ") == "1";
    object.size = NumberIn(WordBehind(info, " Size: "));
    if (object.kind == "user") {
        object.config = WordBehind(info, "Config: ");
        object.commandTimeOut = NumberIn(ReadText(directory / "attrib/cmd_time_out"));
    }
    if (object.kind == "iblock") {
        const auto major = NumberIn(WordBehind(info, "Major: "));
        const auto minor = NumberIn(WordBehind(info, "Minor: "));
        if (major && minor) {
            object.device = makedev(*major, *minor);
            object.size = storage.DeviceSize(*object.device);
        }
    }

    // "T10 VPD Unit Serial Number: SERIAL"
    const std::string serial = ReadText(directory / "wwn/vpd_unit_serial");
    if (const size_t colon = serial.find(": "); colon != std::string::npos)
        object.serial = serial.substr(colon + 2);
    return object;
}

LunView ReadLun(unsigned number, const fs::path& directory) {
    LunView lun;
    lun.number = number;
    lun.directory = directory;
    const auto [name, target] = LinkIn(directory);
    lun.linkName = name;
    lun.object = target.filename().string();
    lun.hba = target.parent_path().filename().string();
    return lun;
}

AclView ReadAcl(const fs::path& directory) {
    AclView acl;
    acl.initiator = directory.filename().string();
    for (const fs::path& entry : Directories(directory)) {
        const auto number = NumberBehind(entry.filename().string(), "lun_");
        if (!number)
            continue;
        const fs::path target = LinkIn(entry).second;
        acl.luns.push_back({*number, NumberBehind(target.filename().string(), "lun_"),
                            ReadFlag(entry / "write_protect")});
    }
    return acl;
}

PortalGroupView ReadGroup(unsigned tag, const fs::path& directory) {
    PortalGroupView group;
    group.tag = tag;
    group.enabled = ReadFlag(directory / "enable");
    group.admitsAnyone = ReadFlag(directory / "attrib/generate_node_acls");
    for (const fs::path& entry : Directories(directory / "lun"))
        if (const auto number = NumberBehind(entry.filename().string(), "lun_"))
            group.luns.push_back(ReadLun(*number, entry));
    for (const fs::path& entry : Directories(directory / "acls"))
        group.acls.push_back(ReadAcl(entry));
    for (const fs::path& entry : Directories(directory / "np"))
        group.portals.push_back(entry.filename().string());
    return group;
}

}  // namespace

std::string StorageObject::Text() const {
    const std::string& what = kind == "user" ? config : path;
    return fmt::format("{}/{}{}", kind, name, what.empty() ? "" : " (" + what + ")");
}

std::string StorageObject::Removal() const {
    if (kind == "fileio" || kind == "iblock")
        return fmt::format("targetcli /backstores/{} delete {}", kind == "iblock" ? "block" : kind,
                           name);
    return fmt::format("rmdir {}; rmdir {}", directory.string(), directory.parent_path().string());
}

const StorageObject* ConfigfsView::Object(const std::string& hba, const std::string& name) const {
    for (const StorageObject& object : objects)
        if (object.hba == hba && object.name == name)
            return &object;
    return nullptr;
}

const TargetView* ConfigfsView::Target(const std::string& name) const {
    for (const TargetView& target : targets)
        if (target.name == name)
            return &target;
    return nullptr;
}

ConfigfsView ReadConfigfs(const fs::path& root, const fs::path& sysBlock) {
    ConfigfsView view;
    StorageRoots roots;
    roots.sysBlock = sysBlock;
    const Storage storage(roots);
    for (const fs::path& hba : Directories(root / "core")) {
        const std::string name = hba.filename().string();
        if (name == "alua")
            continue;  // the kernel's own
        for (const fs::path& object : Directories(hba))
            view.objects.push_back(ReadObject(name, object, storage));
    }
    for (const fs::path& directory : Directories(root / "iscsi")) {
        TargetView target;
        target.name = directory.filename().string();
        for (const fs::path& group : Directories(directory))
            if (const auto tag = NumberBehind(group.filename().string(), "tpgt_"))
                target.groups.push_back(ReadGroup(*tag, group));
        // discovery_auth stands beside the targets, without a portal group; so does a target that
        // lost its own, which must be seen.
        if (!target.groups.empty() || target.name != "discovery_auth")
            view.targets.push_back(std::move(target));
    }
    return view;
}
