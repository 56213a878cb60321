// User LUNs with a targetcli that can't make them: the kernel's configfs tree, written by shell
// commands (Linux, Documentation/target/tcmu-design.rst). Paths are not quoted.

#include <sys/stat.h>

#include <array>
#include <cerrno>

#include "framework/MocHash.h"
#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "platform/TargetCliLun.h"
#include "util/Log.h"
#include "util/Platform_Util.h"

namespace {

/// Returns: 0 when there is something at the path, otherwise the errno of looking.
int Look(const std::string& path) {
    struct stat64 status = {};
    return stat64(path.c_str(), &status) == 0 ? 0 : errno;
}

}  // namespace

struct MoScsiSrvLIO::ConfigFSPaths {
    std::string hba;        // no "/" at its end
    std::string backstore;  // "/" at its end
    std::string lun;        // "/" at its end
    std::string link;
};

MoScsiSrvLIO::ConfigFSPaths MoScsiSrvLIO::GetConfigFSPaths(MoScsiSrvLun_t* lun) {
    ConfigFSPaths paths;
    paths.hba = GetTcmuHBAPath(lun);
    paths.backstore = paths.hba + "/" + StorageObjectName(lun) + "/";
    paths.lun = LunDirectory(lun, SignedLunNumber(lun));
    paths.link = paths.lun + GetCfgString(lun, false);
    return paths;
}

std::string MoScsiSrvLIO::LunDirectory(const MoScsiSrvLun_t* lun, int number) {
    return g_configFSRoot + "iscsi/" + lun->targetName + "/tpgt_1/lun/lun_" +
           std::to_string(number) + "/";
}

std::string MoScsiSrvLIO::GetTcmuHBAPath(MoScsiSrvLun_t* lun) {
    const std::string text = lun->targetName + lun->path;
    std::array<unsigned char, 64> digest{};
    MocMD5 hash;
    hash.reset();
    hash.addData(text.data(), static_cast<uint32_t>(text.size()));
    hash.finish(digest.data(), digest.size());

    unsigned int number = 0xFFFFFFFF;
    Moc::crc32(digest.data(), digest.size(), &number);  // over all 64 bytes, zeros included
    return g_configFSRoot + "core/user_" + std::to_string(number);
}

bool MoScsiSrvLIO::GetNextAvailableLunNum(MoScsiSrvLun_t* lun) {
    for (int number = 0; number <= kMaxLunNumber; ++number) {
        // A number that can't be looked at counts as taken.
        if (Look(LunDirectory(lun, number)) != ENOENT)
            continue;
        lun->lunNum = static_cast<uint32_t>(number);
        MO_LOG(kLogProgress, "NextAvailableLunNum %d\n", number);
        return true;
    }
    return false;
}

CRyError MoScsiSrvLIO::RunInOrder(const std::vector<std::string>& commands) {
    CRyError result = CRyError::Success();
    for (const std::string& command : commands) {
        result = System(command);
        if (result.IsError())
            break;
    }
    return result;
}

CRyError MoScsiSrvLIO::CreateLun_BStorUser_ConfigFS(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    m_cfgMutex.lock();
    if (lun->lunNum == kAutomaticLunNumber && !GetNextAvailableLunNum(lun)) {
        m_cfgMutex.unlock();
        MO_LOG(kLogError, "No lun number available");
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorInvalid, "No lun number available");
    }
    Platform_Util::GetSerialNumber(lun->serialNum, lun->targetName + lun->path, lun->serialNum);
    const ConfigFSPaths paths = GetConfigFSPaths(lun);

    int error = Look(paths.link);
    if (error == 0) {
        MO_LOG(kLogProgress, "lun %s[%d] already exists %s", lun->targetName.c_str(),
               SignedLunNumber(lun), paths.link.c_str());
        m_cfgMutex.unlock();
        return CRyError::Success();
    }
    if (error != ENOENT) {
        MO_LOG(kLogError, "stat %s error %d", paths.link.c_str(), error);
        m_cfgMutex.unlock();
        return FXErrorUtil::ErrorErrNo(MO_HERE, error, "stat %s error %d", paths.link.c_str(),
                                       error);
    }

    error = Look(paths.backstore);
    if (error == 0) {
        MO_LOG(kLogError, "tcmu backstore is in use %s", paths.backstore.c_str());
        m_cfgMutex.unlock();
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorInUse, "tcmu backstore is in use %s",
                                       paths.backstore.c_str());
    }
    if (error != ENOENT) {
        MO_LOG(kLogError, "stat %s %d error", paths.backstore.c_str(), error);
        m_cfgMutex.unlock();
        return FXErrorUtil::ErrorErrNo(MO_HERE, error, "stat %s %d error", paths.backstore.c_str(),
                                       error);
    }
    MO_LOG(kLogProgress, "creating tcmu backstore %s", paths.backstore.c_str());

    const std::string control = paths.backstore + "control";
    CRyError result = RunInOrder({
        "mkdir -p " + paths.backstore,
        "echo -n dev_size=" + std::to_string(lun->size) + " > " + control,
        "echo " + lun->serialNum + " > " + paths.backstore + "wwn/vpd_unit_serial",
        "echo -n dev_config=" + GetCfgString(lun, true) + " > " + control,
        "echo -n 1 > " + paths.backstore + "enable",
        "mkdir -p " + paths.lun,
        "ln -s " + paths.backstore + " " + paths.link,
    });
    if (!result.IsError()) {
        m_cfgMutex.unlock();
        return result;
    }

    MO_LOG(kLogError, "CreateLun_BStorUser_ConfigFS error %s %d\n", lun->targetName.c_str(),
           SignedLunNumber(lun));
    m_cfgMutex.unlock();
    // The undo takes the lock itself. It stops at its own first failure, so that directories can
    // stay; its result doesn't matter beside the one that led here.
    DeleteLun_BStorUser_ConfigFS(lun);
    return result;
}

CRyError MoScsiSrvLIO::DeleteLun_BStorUser_ConfigFS(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    m_cfgMutex.lock();
    const ConfigFSPaths paths = GetConfigFSPaths(lun);
    CRyError result = RunInOrder({
        "rm -f " + paths.link,
        "rmdir " + paths.lun,
        "rmdir " + paths.backstore,
        "rmdir " + paths.hba,
    });
    if (result.IsError())
        MO_LOG(kLogError, "DeleteLun_BStorUser_ConfigF error %s %d\n",  // cut short, as ever
               lun->targetName.c_str(), SignedLunNumber(lun));
    m_cfgMutex.unlock();
    return result;
}
