#include "host/data/FileHolders.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/sysmacros.h>

#include <cstdlib>
#include <sstream>

#include "framework/SmallFile.h"

namespace {

namespace fs = std::filesystem;

/// Never asks a server: a dead one would keep who asks.
bool IsSame(const fs::path& path, const struct stat& file) {
    struct statx found = {};
    return statx(AT_FDCWD, path.c_str(), AT_STATX_DONT_SYNC, STATX_INO, &found) == 0 &&
           found.stx_ino == file.st_ino &&
           makedev(found.stx_dev_major, found.stx_dev_minor) == file.st_dev;
}

bool IsWriting(const fs::path& info) {
    std::istringstream words(ReadSmallFile(info).value_or(""));
    for (std::string word; words >> word;)
        if (word == "flags:" && words >> word)
            return (std::strtoul(word.c_str(), nullptr, 8) & O_ACCMODE) != O_RDONLY;
    return false;
}

bool Holds(const fs::path& process, const struct stat& file, Hold hold) {
    std::error_code ignored;
    for (fs::directory_iterator it(process / "fd", ignored), end; it != end;
         it.increment(ignored)) {
        if (IsSame(it->path(), file) &&
            (hold == Hold::Any || IsWriting(process / "fdinfo" / it->path().filename())))
            return true;
        if (ignored)
            break;
    }
    return false;
}

}  // namespace

std::string HolderOf(const struct stat& file, Hold hold, const std::set<pid_t>& except) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator("/proc", ignored)) {
        const std::string name = entry.path().filename();
        if (name.find_first_not_of("0123456789") != std::string::npos ||
            except.contains(std::stoi(name)) || !Holds(entry.path(), file, hold))
            continue;
        return fmt::format("process {} ({})", name, FirstLineOf(entry.path() / "comm"));
    }
    return {};
}

std::string LoopDeviceOf(const struct stat& file, const fs::path& sysBlock) {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(sysBlock, ignored)) {
        const std::string backing = FirstLineOf(entry.path() / "loop/backing_file");
        if (!backing.empty() && FirstLineOf(entry.path() / "ro") != "1" && IsSame(backing, file))
            return fmt::format("the loop device {}",
                               fs::weakly_canonical(entry.path(), ignored).filename().string());
    }
    return {};
}
