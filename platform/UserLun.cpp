// LUNs whose data the host serves: created through targetcli, or, with an older one, through
// configfs; entered in the registry, where their device finds them.

#include <chrono>
#include <thread>

#include "framework/GetGUID.h"
#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "platform/TargetCliLun.h"
#include "util/Log.h"

namespace {

constexpr TargetCliBackstore kUser = {.directory = "user:MoScsiSrvTcmu", .listedAs = "user/"};

constexpr std::chrono::seconds kClosePoll{2};

}  // namespace

std::string MoScsiSrvLIO::GetCfgString(MoScsiSrvLun_t* lun, bool withPrefix) {
    const std::string text = lun->targetName + lun->path;
    std::string guid;
    GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
    return withPrefix ? g_tcmu_cfgstring_prefix + guid : guid;
}

CRyError MoScsiSrvLIO::CreateLun_BStorUser(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    CRyError result = CheckLunNumber(__PRETTY_FUNCTION__, lun);
    if (result.IsError())
        return result;

    if (m_targetCliVersion >= g_TargetCliVerFB43) {
        m_cfgMutex.lock();
        result =
            CreateByTargetCli(__PRETTY_FUNCTION__, kUser, "cfgstring=" + GetCfgString(lun, false),
                              " size=" + std::to_string(lun->size), lun);
        m_cfgMutex.unlock();
    } else {
        result = CreateLun_BStorUser_ConfigFS(lun);
    }
    if (result.IsError())
        return result;

    const std::string key = GetCfgString(lun, true);
    m_tcmuDevMapMutex.lock();
    // In place: a device that is there stays the entry's, a new entry has none.
    m_tcmuDevMap[key].first = *lun;
    m_tcmuDevMapMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::DeleteLun_BStorUser(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    const std::string key = GetCfgString(lun, true);
    m_tcmuDevMapMutex.lock();
    const bool known = m_tcmuDevMap.count(key) != 0;
    m_tcmuDevMapMutex.unlock();
    if (!known)
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "%s lun not found",
                                       lun->path.c_str());

    CRyError result = CRyError::Success();
    if (m_targetCliVersion >= g_TargetCliVerFB43) {
        m_cfgMutex.lock();
        result = DeleteByTargetCli(kUser, lun);
        m_cfgMutex.unlock();
    } else {
        result = DeleteLun_BStorUser_ConfigFS(lun);
    }
    if (result.IsError())
        return result;

    // The device clears its pointer when it has closed, however long the host holds its contexts.
    // The entry is looked up anew each time: another delete of this LUN may have taken it.
    m_tcmuDevMapMutex.lock();
    auto entry = m_tcmuDevMap.find(key);
    while (entry != m_tcmuDevMap.end() && entry->second.second != nullptr) {
        const std::string target = entry->second.first.targetName;
        const std::string number = std::to_string(SignedLunNumber(&entry->second.first));
        m_tcmuDevMapMutex.unlock();
        MO_LOG(kLogProgress, "waiting for tcmu dev close %s/%s", target.c_str(), number.c_str());
        std::this_thread::sleep_for(kClosePoll);
        m_tcmuDevMapMutex.lock();
        entry = m_tcmuDevMap.find(key);
    }
    // Taken out under the lock, destroyed after it.
    decltype(m_tcmuDevMap)::node_type taken;
    if (entry != m_tcmuDevMap.end())
        taken = m_tcmuDevMap.extract(entry);
    m_tcmuDevMapMutex.unlock();
    return result;
}
