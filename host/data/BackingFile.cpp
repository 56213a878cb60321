#include "host/data/BackingFile.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "host/data/FileHolders.h"

namespace {

std::string Failed(const char* what, const std::string& path) {
    return fmt::format("{} {}: {}", what, path, strerror(errno));
}

}  // namespace

bool BackingFile::Open(const std::string& path, uint64_t size, std::string& error) {
    // Non-blocking: opening a FIFO by mistake must not wait for its other end.
    m_file = UniqueFd(open(path.c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));
    if (!m_file.Valid()) {
        error = Failed("can't open", path);
        return false;
    }
    const bool good =
        CheckFile(path, size, error) && MakeBlocking(path, error) && Lock(path, error);
    if (!good)
        m_file.Close();
    return good;
}

bool BackingFile::CheckFile(const std::string& path, uint64_t size, std::string& error) const {
    struct stat found = {};
    if (fstat(m_file.Get(), &found) != 0)
        error = Failed("can't look at", path);
    else if (!S_ISREG(found.st_mode))
        error = fmt::format("{} is not a regular file: name one", path);
    else if (static_cast<uint64_t>(found.st_size) != size)
        error = fmt::format("{} has {} bytes, the LUN {}; correct the size or name another file",
                            path, static_cast<uint64_t>(found.st_size), size);
    return error.empty();
}

bool BackingFile::MakeBlocking(const std::string& path, std::string& error) {
    // io_uring (Linux 6.1) takes O_NONBLOCK for a wish on a file, too: on dm-crypt, dm-thin, a dm
    // snapshot and md it then answers each read and write with EAGAIN.
    if (fcntl(m_file.Get(), F_SETFL, 0) == 0)
        return true;
    error = Failed("can't make blocking", path);
    return false;
}

bool BackingFile::Lock(const std::string& path, std::string& error) {
    // Two, since who else writes to such files takes one or the other (QEMU the second): neither
    // sees the other. Both end with the open file, whatever becomes of the process.
    struct flock whole = {};
    whole.l_type = F_WRLCK;
    whole.l_whence = SEEK_SET;
    if (flock(m_file.Get(), LOCK_EX | LOCK_NB) == 0 &&
        fcntl(m_file.Get(), F_OFD_SETLK, &whole) == 0)
        return true;
    if (errno != EWOULDBLOCK && errno != EACCES) {
        error = Failed("can't lock", path);
        return false;
    }
    struct stat found = {};
    std::string holder;
    if (fstat(m_file.Get(), &found) == 0)
        holder = HolderOf(found, Hold::Any, {getpid()});
    error = fmt::format("{} is in use by {}; stop that one first", path,
                        holder.empty() ? "another LUN or host" : holder);
    return false;
}
