// iSCSI targets, and which initiator sees which LUN. The portal group is always tpg1, the one that
// targetcli makes with a target. Nothing is quoted: iSCSI names hold neither blanks nor shell
// characters (RFC 7143, 4.2.7).

#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"

namespace {

std::string AclsPath(const MoScsiSrvLun_t* lun) {
    return "/iscsi/" + lun->targetName + "/tpg1/acls";
}

}  // namespace

CRyError MoScsiSrvLIO::CreateTarget(MoScsiSrvTarget_t* target) {
    MO_TRACE(kTraceDetail);
    m_cfgMutex.lock();
    CRyError result = TargetCliUpdateObject("targetcli /iscsi create " + target->targetName,
                                            {"This Target already exists in configFS"});
    if (!result.IsError())
        MO_LOG(kLogConfirm, "Target %s", target->targetName.c_str());
    m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::DeleteTarget(MoScsiSrvTarget_t* target) {
    MO_TRACE(kTraceDetail);
    m_cfgMutex.lock();
    CRyError result = TargetCliUpdateObject("targetcli /iscsi delete " + target->targetName,
                                            {"No such Target in configfs"});
    if (!result.IsError())
        MO_LOG(kLogConfirm, "Target %s", target->targetName.c_str());
    m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) {
    MO_TRACE(kTraceDetail);
    const std::string number = std::to_string(lun->lunNum);
    m_cfgMutex.lock();
    // Without the LUNs that are there already: each is mapped on its own, under its own number.
    CRyError result = TargetCliUpdateObject(
        "targetcli " + AclsPath(lun) + " create add_mapped_luns=false wwn=" + host->initiatorName,
        {"This NodeACL already exists in configFS", "Created Node ACL"});
    if (!result.IsError()) {
        result = TargetCliUpdateObject(
            "targetcli " + AclsPath(lun) + "/" + host->initiatorName +
                " create tpg_lun_or_backstore=" + number + " mapped_lun=" + number,
            {"This MappedLUN already exists in configFS", "Created Mapped LUN"});
    }
    if (!result.IsError())
        MO_LOG(kLogConfirm, "Target %s Lun %d Host %s", lun->targetName.c_str(),
               static_cast<int>(lun->lunNum), host->initiatorName.c_str());
    m_cfgMutex.unlock();
    return result;
}

CRyError MoScsiSrvLIO::UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) {
    MO_TRACE(kTraceDetail);
    m_cfgMutex.lock();
    CRyError result =
        TargetCliUpdateObject("targetcli " + AclsPath(lun) + "/" + host->initiatorName +
                                  " delete mapped_lun=" + std::to_string(lun->lunNum),
                              {"No such MappedLUN in configfs", "doesn't exist!"});
    if (!result.IsError())
        MO_LOG(kLogConfirm, "Target %s Lun %d Host %s", lun->targetName.c_str(),
               static_cast<int>(lun->lunNum), host->initiatorName.c_str());
    m_cfgMutex.unlock();
    return result;
}
