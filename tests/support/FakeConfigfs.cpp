#include "tests/support/FakeConfigfs.h"

#include <fstream>

namespace fs = std::filesystem;

void FakeConfigfs::Write(const fs::path& file, const std::string& text) {
    fs::create_directories(file.parent_path());
    std::ofstream(file) << text << '\n';
}

fs::path FakeConfigfs::GroupDirectory(const std::string& target) const {
    return m_root / "iscsi" / target / "tpgt_1";
}

fs::path FakeConfigfs::ObjectDirectory(const std::string& name) const {
    fs::create_directories(m_root / "core");
    for (const auto& hba : fs::directory_iterator(m_root / "core"))
        if (fs::exists(hba.path() / name))
            return hba.path() / name;
    return {};
}

void FakeConfigfs::AddObject(const Object& object) {
    fs::path directory;
    do {
        directory = m_root / "core" / (object.kind + "_" + std::to_string(m_nextHba++));
    } while (fs::exists(directory));
    directory /= object.name;
    const std::string size = std::to_string(object.size);
    std::string info =
        "Status: ACTIVATED  Max Queue Depth: 128  SectorSize: 512  HwMaxSectors: "
        "16384\n        ";
    if (object.kind == "fileio")
        info += "TCM FILEIO ID: 0        File: " + object.path + "  Size: " + size +
                "  Mode: Buffered-WCE Async: 0";
    else if (object.kind == "iblock")
        info += "iBlock device: loop0  UDEV PATH: " + object.path +
                "  readonly: 0\n        Major: 7 Minor: 0  CLAIMED: IBLOCK";
    else
        info += "Config: " + object.path + " Size: " + size + " MaxDataAreaMB: 1024";
    Write(directory / "info", info);
    Write(directory / "enable", "1");
    Write(directory / "udev_path", object.kind == "user" ? "" : object.path);
    Write(directory / "wwn/vpd_unit_serial", "T10 VPD Unit Serial Number: " + object.serial);
}

void FakeConfigfs::AddTarget(const std::string& target, const std::string& portal) {
    const fs::path group = GroupDirectory(target);
    if (fs::exists(group))
        return;
    for (const char* directory : {"lun", "acls", "np", "attrib"})
        fs::create_directories(group / directory);
    if (!portal.empty())
        fs::create_directories(group / "np" / portal);
    Write(group / "enable", "1");
    Write(group / "attrib/generate_node_acls", "0");
}

void FakeConfigfs::AddLun(const std::string& target, unsigned number, const std::string& object,
                          const std::string& linkName) {
    const fs::path directory = GroupDirectory(target) / "lun" / ("lun_" + std::to_string(number));
    fs::create_directories(directory / "statistics");
    fs::create_symlink(ObjectDirectory(object), directory / linkName);
}

void FakeConfigfs::Map(const std::string& target, const std::string& initiator, unsigned number) {
    const std::string lun = "lun_" + std::to_string(number);
    const fs::path directory = GroupDirectory(target) / "acls" / initiator / lun;
    if (fs::exists(directory))
        return;
    fs::create_directories(GroupDirectory(target) / "acls" / initiator / "attrib");
    Write(directory / "write_protect", "0");
    fs::create_symlink(GroupDirectory(target) / "lun" / lun, directory / "d4e5f6");
}

void FakeConfigfs::Unmap(const std::string& target, const std::string& initiator, unsigned number) {
    fs::remove_all(GroupDirectory(target) / "acls" / initiator / ("lun_" + std::to_string(number)));
}

void FakeConfigfs::RemoveLun(const std::string& target, unsigned number) {
    fs::remove_all(GroupDirectory(target) / "lun" / ("lun_" + std::to_string(number)));
}

void FakeConfigfs::RemoveObject(const std::string& name) {
    if (const fs::path directory = ObjectDirectory(name); !directory.empty())
        fs::remove_all(directory.parent_path());
}

void FakeConfigfs::RemoveTarget(const std::string& target) {
    fs::remove_all(m_root / "iscsi" / target);
}
