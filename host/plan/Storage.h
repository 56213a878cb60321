#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <filesystem>
#include <optional>
#include <set>
#include <string>

/// What the machine says about files and block devices.

/// Where the machine's facts are read; tests give trees of their own.
struct StorageRoots {
    std::filesystem::path sysBlock = "/sys/dev/block";
    std::filesystem::path mountInfo = "/proc/self/mountinfo";
    std::filesystem::path swaps = "/proc/swaps";
    std::filesystem::path proc = "/proc";  ///< meminfo, and processes' status
    /// Processes whose use of files and memory doesn't count: this one, and the host that serves
    /// already.
    std::set<pid_t> ours;
};

/// One path, looked at once, symbolic links followed.
struct PathFacts {
    enum class Kind { Missing, File, BlockDevice, Other };

    Kind kind = Kind::Missing;
    int error = 0;         ///< errno of a path that can't be looked at, other than missing
    uint64_t length = 0;   ///< of a file
    std::string identity;  ///< the same for two paths that lead to the same file or device
    dev_t device = 0;      ///< of a block device
};

/// Thread: any, for looking; no state but the roots.
class Storage {
  public:
    explicit Storage(StorageRoots roots = {}) : m_roots(std::move(roots)) {}
    virtual ~Storage() = default;

    /// Virtual, so that a test can show devices that its machine hasn't got.
    virtual PathFacts LookAt(const std::string& path) const;

    /// Returns: 0, or the errno of opening the file for writing. Virtual for the same reason.
    virtual int WriteError(const std::string& path) const;

    /// Returns: who else could write to the file ("process 12 (qemu-img) has it open for writing");
    /// empty when nobody is seen.
    std::string FileUse(const std::string& path) const;

    /// How much memory the machine can give to memory LUNs: what is available, and what those of
    /// the host that serves already hold. Nothing when the kernel doesn't say.
    std::optional<uint64_t> MemoryToGive() const;

    /// A block device's length in bytes, as sysfs has it.
    std::optional<uint64_t> DeviceSize(dev_t device) const;

    bool DeviceReadOnly(dev_t device) const;

    /// Returns: what uses the device, or one of its partitions ("is mounted on /srv"); empty when
    /// it is free. That LIO holds it doesn't count.
    std::string DeviceUse(dev_t device) const;

  private:
    std::filesystem::path DirectoryOf(dev_t device) const;
    std::string UseOf(const std::string& majorMinor) const;

    StorageRoots m_roots;
};
