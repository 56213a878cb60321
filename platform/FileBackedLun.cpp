// LUNs on a file and on a block device: one frame, what differs in a table.

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "platform/TargetCliLun.h"
#include "util/Log.h"

/// What tells a file LUN from a block LUN.
struct FileBackstore {
    TargetCliBackstore targetcli;
    const char* sourceKey;  ///< of the backstore's create command
    bool createMissing;
    mode_t fileType;
    const char* wrongTypeLog;    // not always the same words:
    const char* wrongTypeError;  // operators know both
};

namespace {

constexpr FileBackstore kFile = {
    .targetcli = {.directory = "fileio", .listedAs = "fileio/"},
    .sourceKey = "file_or_dev=",
    .createMissing = true,
    .fileType = S_IFREG,
    .wrongTypeLog = "bstor %s is not regular file",
    .wrongTypeError = "bstor %s not regular file",
};
constexpr FileBackstore kBlockDevice = {
    .targetcli = {.directory = "block", .listedAs = "block/"},
    .sourceKey = "dev=",
    .createMissing = false,
    .fileType = S_IFBLK,
    .wrongTypeLog = "bstor %s is not blk dev",
    .wrongTypeError = "bstor %s is not blk dev",
};

/// Makes a sparse file of the LUN's size. One that can't be written in full stays.
CRyError CreateBackingFile(const char* function, const MoScsiSrvLun_t* lun) {
    const char* const path = lun->path.c_str();
    if (lun->size == 0) {
        MO_LOG_AS(function, kLogError, "bstor file %s size not set", path);
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), kErrorInvalid,
                                       "bstor file size not set %s", path);
    }
    MO_LOG_AS(function, kLogProgress, "creating bstor file %s", path);
    const int fd = open64(path, O_RDWR | O_CREAT, 0640);
    if (fd < 0) {
        const int error = errno;
        MO_LOG_AS(function, kLogError, "creat bstor file %s error %d", path, error);
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), error, "bstor file create error %s",
                                       path);
    }
    const char zero = 0;
    if (pwrite64(fd, &zero, 1, static_cast<off64_t>(lun->size - 1)) != 1) {
        close(fd);
        const int error = errno;  // as it stands after the close
        MO_LOG_AS(function, kLogError, "write bstor file %s error %d", path, error);
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), error, "bstor file write error %s",
                                       path);
    }
    close(fd);
    return CRyError::Success();
}

/// Checks what is at the LUN's path, and makes a missing file where the kind allows it.
CRyError CheckBacking(const char* function, const FileBackstore& kind, const MoScsiSrvLun_t* lun) {
    const char* const path = lun->path.c_str();
    struct stat64 status = {};
    if (stat64(path, &status) != 0) {
        const int error = errno;
        if (error == ENOENT && kind.createMissing)
            return CreateBackingFile(function, lun);
        MO_LOG_AS(function, kLogError, "bstor %s stat error %d", path, error);
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), error, "bstor %s stat error", path);
    }
    if ((status.st_mode & S_IFMT) != kind.fileType) {
        const int error = errno;  // whatever an earlier call left, on purpose; 0 is an error too
        MO_LOG_AS(function, kLogError, kind.wrongTypeLog, path);
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), error, kind.wrongTypeError, path);
    }
    return CRyError::Success();
}

}  // namespace

CRyError MoScsiSrvLIO::CreateFileBackedLun(const char* function, const FileBackstore& kind,
                                           MoScsiSrvLun_t* lun) {
    CRyError result = CheckLunNumber(function, lun);
    if (result.IsError())
        return result;
    result = CheckBacking(function, kind, lun);
    if (result.IsError())
        return result;
    m_cfgMutex.lock();
    result = CreateByTargetCli(function, kind.targetcli, kind.sourceKey + lun->path, "", lun);
    m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::DeleteFileBackedLun(const FileBackstore& kind, const MoScsiSrvLun_t* lun) {
    m_cfgMutex.lock();
    CRyError result = DeleteByTargetCli(kind.targetcli, lun);
    m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::CreateLun_BStorFile(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return CreateFileBackedLun(__PRETTY_FUNCTION__, kFile, lun);
}

CRyError MoScsiSrvLIO::DeleteLun_BStorFile(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return DeleteFileBackedLun(kFile, lun);
}

CRyError MoScsiSrvLIO::CreateLun_BStorBlkDev(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return CreateFileBackedLun(__PRETTY_FUNCTION__, kBlockDevice, lun);
}

CRyError MoScsiSrvLIO::DeleteLun_BStorBlkDev(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return DeleteFileBackedLun(kBlockDevice, lun);
}
