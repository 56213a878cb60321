// CreateLun and DeleteLun: which kind of backstore does the work, and the storage objects' names.

#include "framework/GetGUID.h"
#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"

struct MoScsiSrvLIO::LunKind {
    uint32_t type;
    LunOperation create;
    LunOperation remove;
};

CRyError MoScsiSrvLIO::DispatchLun(const char* function, MoScsiSrvLun_t* lun,
                                   LunOperation LunKind::*operation) {
    static constexpr LunKind kKinds[] = {
        {BSTOR_FILE, &MoScsiSrvLIO::CreateLun_BStorFile, &MoScsiSrvLIO::DeleteLun_BStorFile},
        {BSTOR_BLKDEV, &MoScsiSrvLIO::CreateLun_BStorBlkDev, &MoScsiSrvLIO::DeleteLun_BStorBlkDev},
        {BSTOR_USER, &MoScsiSrvLIO::CreateLun_BStorUser, &MoScsiSrvLIO::DeleteLun_BStorUser},
        {BSTOR_BLKDEV2, &MoScsiSrvLIO::CreateLun_BStorBlkDev, &MoScsiSrvLIO::DeleteLun_BStorBlkDev},
    };
    for (const LunKind& kind : kKinds) {
        if (kind.type != lun->bstorType)
            continue;
        CRyError result = (this->*(kind.*operation))(lun);
        // The record is read after the work: a create has written its serial, and a number that
        // the system chose, back into it.
        if (!result.IsError())
            MO_LOG_AS(function, kLogConfirm, "Target %s Lun %d SerialNum %s Path %s BStorType %d",
                      lun->targetName.c_str(), static_cast<int>(lun->lunNum),
                      lun->serialNum.c_str(), lun->path.c_str(), static_cast<int>(lun->bstorType));
        return result;
    }
    return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), kErrorFailed, "invalid bstore type %d",
                                   static_cast<int>(lun->bstorType));
}

CRyError MoScsiSrvLIO::CreateLun(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return DispatchLun(__PRETTY_FUNCTION__, lun, &LunKind::create);
}

CRyError MoScsiSrvLIO::DeleteLun(MoScsiSrvLun_t* lun) {
    MO_TRACE(kTraceDetail);
    return DispatchLun(__PRETTY_FUNCTION__, lun, &LunKind::remove);
}

std::string MoScsiSrvLIO::StorageObjectName(const MoScsiSrvLun* lun) {
    const std::string key = "MoScsiSrv-" + lun->targetName + "-" + lun->path;
    std::string name;
    GetGUID(key.data(), static_cast<uint32_t>(key.size()), name);
    name.resize(15);
    return name;
}
