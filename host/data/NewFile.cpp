#include "host/data/NewFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
}

/// Makes the names in the directory survive a power cut.
bool SyncDirectory(const std::string& directory) {
    UniqueFd names(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!names.Valid())
        return false;
    const bool synced = fsync(names.Get()) == 0;
    const int failure = errno;
    names.Close();
    errno = failure;
    return synced;
}

}  // namespace

NewFile::~NewFile() {
    if (!m_draft.empty())
        unlink(m_draft.c_str());
}

bool NewFile::OpenDraft() {
    m_file = UniqueFd(open(m_directory.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (m_file.Valid() || (errno != EOPNOTSUPP && errno != EISDIR))
        return m_file.Valid();
    m_draft = m_directory + "/.moscsi-XXXXXX";
    m_file = UniqueFd(mkostemp(m_draft.data(), O_CLOEXEC));
    if (!m_file.Valid())
        m_draft.clear();
    return m_file.Valid();
}

bool NewFile::Reserve(uint64_t size, std::string& error) {
    // Looked at first: fallocate takes all that is left before it says that it isn't enough, and
    // what others write meanwhile would fail.
    struct statvfs space = {};
    if (fstatvfs(m_file.Get(), &space) == 0 && space.f_bavail < size / space.f_frsize)
        errno = ENOSPC;
    else if (fallocate(m_file.Get(), 0, 0, static_cast<off_t>(size)) == 0)
        return true;
    error = fmt::format(
        "can't reserve {} bytes for {} ({}): free or add space, or use provisioning = \"sparse\"",
        size, m_path, strerror(errno));
    return false;
}

bool NewFile::Make(const std::string& path, uint64_t size, Provisioning provisioning,
                   std::string& error) {
    m_path = path;
    m_directory = DirectoryOf(path);
    const bool sized = OpenDraft() && ftruncate(m_file.Get(), static_cast<off_t>(size)) == 0;
    if (sized && provisioning == Provisioning::Full && !Reserve(size, error))
        return false;
    const bool made = sized && fsync(m_file.Get()) == 0;
    if (!made)
        error = fmt::format("can't make {} with {} bytes: {}", path, size, strerror(errno));
    return made;
}

bool NewFile::Publish(std::string& error) {
    const std::string unnamed = fmt::format("/proc/self/fd/{}", m_file.Get());
    // A link refuses what a rename would replace: a file that appeared meanwhile.
    if (linkat(AT_FDCWD, m_draft.empty() ? unnamed.c_str() : m_draft.c_str(), AT_FDCWD,
               m_path.c_str(), m_draft.empty() ? AT_SYMLINK_FOLLOW : 0) != 0) {
        error = fmt::format("can't make {}: {}", m_path, strerror(errno));
        return false;
    }
    if (!m_draft.empty())
        unlink(m_draft.c_str());
    m_draft.clear();
    if (SyncDirectory(m_directory))
        return true;
    error = fmt::format("can't sync the directory of {}: {}", m_path, strerror(errno));
    Withdraw();
    return false;
}

void NewFile::Withdraw() {
    struct stat own = {};
    struct stat named = {};
    if (fstat(m_file.Get(), &own) == 0 && lstat(m_path.c_str(), &named) == 0 &&
        own.st_dev == named.st_dev && own.st_ino == named.st_ino)
        unlink(m_path.c_str());
}
