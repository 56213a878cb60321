#include "host/plan/Storage.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <sstream>

#include "framework/SmallFile.h"
#include "framework/UniqueFd.h"
#include "host/data/FileHolders.h"

namespace {

namespace fs = std::filesystem;

std::string NumbersOf(dev_t device) {
    return fmt::format("{}:{}", major(device), minor(device));
}

std::istringstream Content(const fs::path& file) {
    return std::istringstream(ReadSmallFile(file).value_or(""));
}

std::string FirstWord(const fs::path& file) {
    std::string word;
    Content(file) >> word;
    return word;
}

/// The number behind "KEY", in lines of "Key:   number kB".
std::optional<uint64_t> KilobytesIn(const fs::path& file, const std::string& key) {
    std::istringstream words = Content(file);
    uint64_t number = 0;
    for (std::string word; words >> word;)
        if (word == key && words >> number)
            return number;
    return std::nullopt;
}

/// True when `path` is the block device `majorMinor`. File systems that span devices show an
/// anonymous number in the mount table and the device only as the mount's source.
bool IsDevice(const std::string& path, const std::string& majorMinor) {
    struct stat info {};
    return path.starts_with('/') && stat(path.c_str(), &info) == 0 && S_ISBLK(info.st_mode) &&
           NumbersOf(info.st_rdev) == majorMinor;
}

}  // namespace

PathFacts Storage::LookAt(const std::string& path) const {
    PathFacts facts;
    struct stat info {};
    if (stat(path.c_str(), &info) != 0) {
        if (errno != ENOENT)
            facts.error = errno;
        std::error_code ignored;
        facts.identity = fs::weakly_canonical(path, ignored).string();
        return facts;
    }
    if (S_ISBLK(info.st_mode)) {
        facts.kind = PathFacts::Kind::BlockDevice;
        facts.device = info.st_rdev;
        facts.identity = "device " + NumbersOf(info.st_rdev);
    } else {
        facts.kind = S_ISREG(info.st_mode) ? PathFacts::Kind::File : PathFacts::Kind::Other;
        facts.length = static_cast<uint64_t>(info.st_size);
        facts.identity = fmt::format("file {} on {}", info.st_ino, NumbersOf(info.st_dev));
    }
    return facts;
}

std::optional<uint64_t> Storage::MemoryToGive() const {
    const auto available = KilobytesIn(m_roots.proc / "meminfo", "MemAvailable:");
    if (!available)
        return std::nullopt;
    uint64_t kilobytes = *available;
    for (const pid_t process : m_roots.ours)
        kilobytes +=
            KilobytesIn(m_roots.proc / std::to_string(process) / "status", "RssShmem:").value_or(0);
    return kilobytes * 1024;
}

int Storage::WriteError(const std::string& path) const {
    const UniqueFd file(open(path.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC));
    // Whether root could is root's to find out.
    return file.Valid() || (errno == EACCES && geteuid() != 0) ? 0 : errno;
}

std::string Storage::FileUse(const std::string& path) const {
    struct stat file {};
    if (stat(path.c_str(), &file) != 0)
        return {};
    std::istringstream swaps = Content(m_roots.swaps);
    for (std::string line; std::getline(swaps, line);) {
        std::error_code ignored;
        if (fs::equivalent(line.substr(0, line.find_first_of(" \t")), path, ignored))
            return "is swap space";
    }
    if (const std::string loop = LoopDeviceOf(file, m_roots.sysBlock); !loop.empty())
        return "is behind " + loop;
    const std::string holder = HolderOf(file, Hold::Writing, m_roots.ours);
    return holder.empty() ? "" : fmt::format("is open for writing by {}", holder);
}

fs::path Storage::DirectoryOf(dev_t device) const {
    return m_roots.sysBlock / NumbersOf(device);
}

std::optional<uint64_t> Storage::DeviceSize(dev_t device) const {
    constexpr uint64_t kSysfsSector = 512;
    uint64_t sectors = 0;
    if (!(Content(DirectoryOf(device) / "size") >> sectors))
        return std::nullopt;
    return sectors * kSysfsSector;
}

bool Storage::DeviceReadOnly(dev_t device) const {
    return FirstWord(DirectoryOf(device) / "ro") == "1";
}

std::string Storage::UseOf(const std::string& majorMinor) const {
    std::istringstream mounts = Content(m_roots.mountInfo);
    for (std::string line; std::getline(mounts, line);) {
        // id parent major:minor root mount-point options [tags] - type source options
        std::istringstream words(line);
        std::string skipped;
        std::string numbers;
        std::string place;
        words >> skipped >> skipped >> numbers >> skipped >> place;
        std::string source;
        if (const size_t dash = line.find(" - "); dash != std::string::npos) {
            std::istringstream tail(line.substr(dash + 3));
            tail >> skipped >> source;
        }
        if (numbers == majorMinor || IsDevice(source, majorMinor))
            return "is mounted on " + place;
    }
    std::istringstream swaps = Content(m_roots.swaps);
    for (std::string line; std::getline(swaps, line);)
        if (IsDevice(line.substr(0, line.find_first_of(" \t")), majorMinor))
            return "is swap space";
    return {};
}

std::string Storage::DeviceUse(dev_t device) const {
    std::string use = UseOf(NumbersOf(device));
    if (!use.empty())
        return use;
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(DirectoryOf(device) / "holders", ignored))
        return "is part of " + entry.path().filename().string();
    // A partition's directory stands in its disk's, and has a number of its own.
    for (const auto& entry : fs::directory_iterator(DirectoryOf(device), ignored)) {
        const std::string numbers = FirstWord(entry.path() / "dev");
        if (!fs::exists(entry.path() / "partition", ignored) || numbers.empty())
            continue;
        use = UseOf(numbers);
        if (!use.empty())
            return fmt::format("has a partition, {}, that {}", entry.path().filename().string(),
                               use);
    }
    return {};
}
