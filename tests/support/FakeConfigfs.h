#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <string>

/// A directory tree with the shape that the kernel's target shows in configfs. The real one is
/// looked at in the VM's scenarios; this one can be bent into every wrong state.
struct FakeConfigfs {
    using Path = std::filesystem::path;

    explicit FakeConfigfs(Path root) : m_root(std::move(root)) {}

    struct Object {
        std::string kind;  ///< fileio, iblock, user
        std::string name;
        std::string path;  ///< udev_path; of a user backstore its configuration
        uint64_t size = 0;
        std::string serial;
    };

    static void Write(const Path& file, const std::string& text) {
        create_directories(file.parent_path());
        std::ofstream(file) << text << '\n';
    }

    const Path& Root() const { return m_root; }
    Path Group(const std::string& target) const { return m_root / "iscsi" / target / "tpgt_1"; }
    Path Lun(const std::string& target, unsigned number) const {
        return Group(target) / "lun" / ("lun_" + std::to_string(number));
    }
    Path Mapping(const std::string& target, const std::string& host, unsigned number) const {
        return Group(target) / "acls" / host / ("lun_" + std::to_string(number));
    }
    /// The place of an object; empty when there is none.
    Path ObjectDirectory(const std::string& name) const {
        create_directories(m_root / "core");
        for (const auto& hba : std::filesystem::directory_iterator(m_root / "core"))
            if (exists(hba.path() / name))
                return hba.path() / name;
        return {};
    }

    /// Makes a storage object in an HBA of its own, whose number nobody can foretell.
    void AddObject(const Object& object) {
        Path hba;
        do {
            hba = m_root / "core" / (object.kind + "_" + std::to_string(m_nextHba++));
        } while (exists(hba));
        const std::string size = std::to_string(object.size);
        std::string info = "Config: " + object.path + " Size: " + size + " MaxDataAreaMB: 1024";
        if (object.kind == "fileio")
            info = "TCM FILEIO ID: 0        File: " + object.path + "  Size: " + size + "  Mode: O";
        if (object.kind == "iblock")
            info = "iBlock device: loop0  UDEV PATH: " + object.path +
                   "  readonly: 0\n        Major: 7 Minor: 0  CLAIMED: IBLOCK";
        Write(hba / object.name / "info",
              "Status: ACTIVATED  Max Queue Depth: 128  SectorSize: 512\n        " + info);
        Write(hba / object.name / "enable", "1");
        Write(hba / object.name / "udev_path", object.kind == "user" ? "" : object.path);
        Write(hba / object.name / "wwn/vpd_unit_serial",
              "T10 VPD Unit Serial Number: " + object.serial);
    }
    void RemoveObject(const std::string& name) { remove_all(ObjectDirectory(name).parent_path()); }

    void AddTarget(const std::string& target, const std::string& portal = "0.0.0.0:3260",
                   bool closed = false) {
        if (exists(Group(target)))
            return;
        for (const Path& directory : {Path("lun"), Path("acls"), "np" / Path(portal)})
            create_directories(Group(target) / directory);
        Write(Group(target) / "enable", closed ? "0" : "1");
        Write(Group(target) / "attrib/generate_node_acls", "0");
    }
    void RemoveTarget(const std::string& target) { remove_all(m_root / "iscsi" / target); }

    void AddLun(const std::string& target, unsigned number, const std::string& object,
                const std::string& linkName = "a1b2c3") {
        create_directories(Lun(target, number) / "statistics");
        create_symlink(ObjectDirectory(object), Lun(target, number) / linkName);
    }
    void Map(const std::string& target, const std::string& host, unsigned number) {
        const Path mapping = Mapping(target, host, number);
        if (exists(mapping))
            return;
        create_directories(mapping.parent_path() / "attrib");
        Write(mapping / "write_protect", "0");
        create_symlink(Lun(target, number), mapping / "d4e5f6");
    }

  private:
    Path m_root;
    int m_nextHba = 0;
};
