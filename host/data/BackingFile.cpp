#include "host/data/BackingFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace {

std::string Failed(const char* what, const std::string& path) {
    return fmt::format("{} {}: {}", what, path, strerror(errno));
}

/// Makes the names in the directory of `path` survive a power cut.
bool SyncDirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string directory =
        slash == std::string::npos ? "." : path.substr(0, slash == 0 ? 1 : slash);
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

bool BackingFile::Open(const std::string& path, uint64_t size, std::string& error) {
    m_file.Close();
    struct stat found = {};
    const bool exists = lstat(path.c_str(), &found) == 0;
    if (!exists && errno != ENOENT) {
        error = Failed("can't look at", path);
        return false;
    }
    const bool opened = exists ? OpenExisting(path, size, error) : Create(path, size, error);
    m_made = opened && !exists;
    if (!opened)
        m_file.Close();
    return opened;
}

bool BackingFile::OpenExisting(const std::string& path, uint64_t size, std::string& error) {
    // Non-blocking: opening a FIFO by mistake must not wait for its other end.
    m_file = UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!m_file.Valid()) {
        error = Failed("can't open", path);
        return false;
    }
    struct stat found = {};
    if (fstat(m_file.Get(), &found) != 0) {
        error = Failed("can't look at", path);
        return false;
    }
    if (!S_ISREG(found.st_mode)) {
        error = fmt::format("{} is not a regular file; name one, or a path where none is", path);
        return false;
    }
    if (static_cast<uint64_t>(found.st_size) != size) {
        error = fmt::format("{} has {} bytes, the LUN {}; correct the size or name another file",
                            path, static_cast<uint64_t>(found.st_size), size);
        return false;
    }
    return MakeBlocking(path, error) && Lock(path, error);
}

bool BackingFile::MakeBlocking(const std::string& path, std::string& error) {
    // io_uring (Linux 6.1) takes O_NONBLOCK for a wish on a file, too: on dm-crypt, dm-thin, a dm
    // snapshot and md it then answers each read and write with EAGAIN.
    if (fcntl(m_file.Get(), F_SETFL, 0) == 0)
        return true;
    error = Failed("can't make blocking", path);
    return false;
}

bool BackingFile::Create(const std::string& path, uint64_t size, std::string& error) {
    const std::string unfinished = path + ".new";
    m_file = UniqueFd(
        open(unfinished.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK, 0600));
    if (!m_file.Valid()) {
        error = Failed("can't make", unfinished);
        return false;
    }
    // What a crash left there is begun anew; the lock keeps two hosts from doing so at once.
    if (!MakeBlocking(unfinished, error) || !Lock(unfinished, error))
        return false;
    const bool whole = ftruncate(m_file.Get(), 0) == 0 &&
                       ftruncate(m_file.Get(), static_cast<off_t>(size)) == 0 &&
                       fsync(m_file.Get()) == 0;
    // link refuses what rename would replace: a file that appeared meanwhile.
    const bool named = whole && link(unfinished.c_str(), path.c_str()) == 0;
    if (!named)
        error = fmt::format("can't make {} with {} bytes: {}", path, size, strerror(errno));
    unlink(unfinished.c_str());
    if (named && !SyncDirectoryOf(path)) {
        error = Failed("can't sync the directory of", path);
        unlink(path.c_str());
        return false;
    }
    return named;
}

bool BackingFile::Lock(const std::string& path, std::string& error) {
    if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0)
        return true;
    error = errno == EWOULDBLOCK
                ? fmt::format("{} is in use by another LUN or host; stop that one first", path)
                : Failed("can't lock", path);
    return false;
}
