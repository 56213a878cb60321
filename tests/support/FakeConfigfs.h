#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

/// A directory tree with the shape that the kernel's target shows in configfs. The real one is
/// looked at in the VM's scenarios; this one can be bent into every wrong state.
class FakeConfigfs {
  public:
    explicit FakeConfigfs(std::filesystem::path root) : m_root(std::move(root)) {}

    struct Object {
        std::string kind;  ///< fileio, iblock, user
        std::string name;
        std::string path;  ///< udev_path; of a user backstore its configuration
        uint64_t size = 0;
        std::string serial;
    };

    /// Makes a storage object in an HBA of its own, whose number nobody can foretell.
    void AddObject(const Object& object);
    void AddTarget(const std::string& target, const std::string& portal = "0.0.0.0:3260");
    void AddLun(const std::string& target, unsigned number, const std::string& object,
                const std::string& linkName = "a1b2c3");
    void Map(const std::string& target, const std::string& initiator, unsigned number);

    void Unmap(const std::string& target, const std::string& initiator, unsigned number);
    void RemoveLun(const std::string& target, unsigned number);
    void RemoveObject(const std::string& name);
    void RemoveTarget(const std::string& target);

    /// The place of an object; empty when there is none.
    std::filesystem::path ObjectDirectory(const std::string& name) const;
    std::filesystem::path GroupDirectory(const std::string& target) const;

    static void Write(const std::filesystem::path& file, const std::string& text);
    const std::filesystem::path& Root() const { return m_root; }

  private:
    std::filesystem::path m_root;
    int m_nextHba = 0;
};
