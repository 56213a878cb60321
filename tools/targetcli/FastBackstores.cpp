#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "framework/SmallFile.h"
#include "framework/UniqueFd.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/FastForms.h"
#include "tools/targetcli/StorageObjects.h"
#include "tools/targetcli/UserHandler.h"

namespace {

namespace fs = std::filesystem;

constexpr char kIndexLock[] = "/var/run/rtslib_backstore.lock";
constexpr uint64_t kBlockSize = 512;

// Of the library below targetcli, held while an HBA's index is chosen.
UniqueFd TakeIndexLock() {
    UniqueFd lock(open(kIndexLock, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0666));
    Require(lock.Valid() && flock(lock.Get(), LOCK_EX) == 0, "the index's lock can't be taken");
    return lock;
}

// Kept by the kernel for reservations that outlive a power cut; targetcli gives it back to the
// kernel when a serial comes again.
void RequireNoReservations(const fs::path& root, const std::string& serial) {
    const fs::path file = fs::path(FirstLineOf(root / "dbroot")) / "pr" / ("aptpl_" + serial);
    Require(access(file.c_str(), F_OK) != 0 && errno == ENOENT,
            "reservations of an earlier object of this serial");
}

// Two storage objects of one file or device, whatever its name.
bool SameBacking(const struct stat& one, const struct stat& other) {
    return S_ISBLK(one.st_mode) && S_ISBLK(other.st_mode)
               ? one.st_rdev == other.st_rdev
               : one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

struct stat StatusOf(const CommandLine& line) {
    std::error_code failure;
    struct stat status = {};
    Require(stat(line.path.c_str(), &status) == 0 && fs::canonical(line.path, failure) == line.path,
            "no such path, or links in it");
    return status;
}

// Returns: the object of this name, when it and only it has this backing.
std::optional<StorageObject> ObjectWithBacking(const std::vector<StorageObject>& objects,
                                               const CommandLine& line, const struct stat& status) {
    auto found = FindObject(objects, line);
    for (const StorageObject& object : objects) {
        struct stat other = {};
        if (stat(object.UdevPath().c_str(), &other) == 0 && SameBacking(status, other))
            Require(found && object.directory == found->directory,
                    "it is another object's already");
    }
    return found;
}

bool Same(const StorageObject& object, const CommandLine& line) {
    return object.UdevPath() == line.path && object.Serial() == line.serial && object.Enabled();
}

// What a create of any kind ends with. The serial comes after enabling, as targetcli writes it.
constexpr char kEnable[] = "enable";
constexpr char kOn[] = "1\n";
void GiveSerial(ConfigfsChange& change, const fs::path& object, const std::string& serial) {
    change.Write(object / "wwn/vpd_unit_serial", serial + "\n");
}

// A directory for the new object; the index's lock need not be held beyond.
fs::path MakeObject(ConfigfsChange& change, const CommandLine& line, const fs::path& root) {
    const UniqueFd lock = TakeIndexLock();
    const fs::path hba = NewHba(root, *line.kind);
    change.MakeDirectory(hba);
    change.MakeDirectory(hba / line.object);
    return hba / line.object;
}

bool InExclusiveUse(const std::string& device) {
    return !UniqueFd(open(device.c_str(), O_RDONLY | O_EXCL | O_NONBLOCK | O_CLOEXEC)).Valid();
}

// A whole disk's or a partition's directory in sysfs.
fs::path SysfsOf(const struct stat& device) {
    return "/sys/dev/block/" + std::to_string(major(device.st_rdev)) + ":" +
           std::to_string(minor(device.st_rdev));
}

// Only what is surely a disk that can be written to.
void RequirePlainDisk(const CommandLine& line, const struct stat& status) {
    Require(S_ISBLK(status.st_mode), "no block device");
    const fs::path sysfs = SysfsOf(status);
    std::error_code ignored;
    Require(FirstLineOf(sysfs / "ro") == "0", "a read-only device");
    Require(FirstLineOf(sysfs / "size") != "0", "an empty device");
    const std::string type = FirstLineOf(sysfs / "device/type");
    Require(type.empty() || type == "0", "a device that isn't a disk");
    Require(!fs::exists(sysfs / "partition", ignored), "a partition");
    Require(!InExclusiveUse(line.path), "a device in use");
}

}  // namespace

Answer CreateFile(const CommandLine& line, const fs::path& root) {
    const struct stat status = StatusOf(line);
    const uint64_t size = static_cast<uint64_t>(status.st_size);
    Require(S_ISREG(status.st_mode), "no plain file");
    Require(size >= kBlockSize && size % kBlockSize == 0, "a file of no whole number of blocks");
    if (const auto object = ObjectWithBacking(StorageObjects(root), line, status)) {
        Require(Same(*object, line) && object->Info(" Size: ") == std::to_string(size),
                "the object is there and differs");
        return {kStatusAlreadyThere, "",
                "storage object for " + line.path + " already exists: " + line.object + "\n"};
    }
    RequireNoReservations(root, line.serial);

    ConfigfsChange change;
    const fs::path object = MakeObject(change, line, root);
    change.Write(object / "control",
                 "fd_dev_name=" + line.path + ",fd_dev_size=" + std::to_string(size));
    change.Write(object / "attrib/emulate_write_cache", "1");
    change.Write(object / "control", "fd_buffered_io=1");
    change.Write(object / "udev_path", line.path);
    change.Write(object / kEnable, kOn);
    GiveSerial(change, object, line.serial);
    change.Write(object / "attrib/emulate_model_alias", "1");
    return {0, "Created fileio " + line.object + " with size " + std::to_string(size) + "\n", ""};
}

Answer CreateBlock(const CommandLine& line, const fs::path& root) {
    const struct stat status = StatusOf(line);
    if (const auto object = ObjectWithBacking(StorageObjects(root), line, status)) {
        Require(Same(*object, line), "the object is there and differs");
        return {kStatusAlreadyThere, "", "Storage object block/" + line.object + " exists\n"};
    }
    RequirePlainDisk(line, status);
    RequireNoReservations(root, line.serial);

    ConfigfsChange change;
    const fs::path object = MakeObject(change, line, root);
    change.Write(object / "udev_path", line.path);
    change.Write(object / "control", "udev_path=" + line.path);
    change.Write(object / "control", "readonly=0");
    change.Write(object / kEnable, kOn);
    GiveSerial(change, object, line.serial);
    change.Write(object / "attrib/emulate_model_alias", "1");
    return {0, "Created block storage object " + line.object + " using " + line.path + ".\n", ""};
}

Answer CreateUser(const CommandLine& line, const fs::path& root) {
    const std::string config = line.handler + "/" + line.config;
    const std::string size = std::to_string(*line.size);
    Require(*line.size >= kBlockSize && *line.size % kBlockSize == 0, "no whole number of blocks");
    RequireHandlerTakesConfig(line);  // targetcli asks first, also for what is there
    if (const auto object = FindObject(StorageObjects(root), line)) {
        Require(object->Info("Config: ") == config && object->Info(" Size: ") == size &&
                    object->Serial() == line.serial && object->Enabled(),
                "the object is there and differs");
        // targetcli's own line doesn't say that it is there (UserBackstoreCheck.h).
        return {kStatusAlreadyThere, "",
                "a user backstore of this name, configuration and size already exists\n"
                "UserBackedStorageObject creation failed.\n"};
    }
    RequireNoReservations(root, line.serial);

    ConfigfsChange change;
    const fs::path object = MakeObject(change, line, root);
    change.Write(object / "control", "dev_config=" + config);
    change.Write(object / "control", "dev_size=" + size);
    change.WriteAsking(object / kEnable, kOn);  // the handler is asked
    GiveSerial(change, object, line.serial);
    return {0, "Created user-backed storage object " + line.object + " size " + size + ".\n", ""};
}

Answer DeleteBackstore(const CommandLine& line, const fs::path& root) {
    RequireUserHandler(line);
    const auto object = FindObject(StorageObjects(root), line);
    Require(object.has_value(), "no such storage object");

    ConfigfsChange change;
    change.Remove(object->directory);  // refused while a LUN leads to it
    change.Remove(object->directory.parent_path());
    return {0, "Deleted storage object " + line.object + ".\n", ""};
}
