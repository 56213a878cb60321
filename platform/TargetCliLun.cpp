// What creating and deleting a LUN with targetcli has in common for every kind of backstore.

#include "platform/TargetCliLun.h"

#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"
#include "util/Platform_Util.h"

CRyError CheckLunNumber(const char* function, const MoScsiSrvLun_t* lun) {
    const int number = SignedLunNumber(lun);
    if (lun->lunNum == kAutomaticLunNumber || (number >= 0 && number <= kMaxLunNumber))
        return CRyError::Success();
    MO_LOG_AS(function, kLogError, "invalid lun number %d", number);
    return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), kErrorInvalid, "invalid lun number %d",
                                   number);
}

CRyError MoScsiSrvLIO::CreateByTargetCli(const char* function, const TargetCliBackstore& backstore,
                                         const std::string& source, const std::string& extra,
                                         MoScsiSrvLun_t* lun) {
    const bool automatic = lun->lunNum == kAutomaticLunNumber;
    const std::string directory = backstore.directory;
    const std::string luns = "targetcli /iscsi/" + lun->targetName + "/tpg1/luns";

    // The host sees the serial, and so does a later create with the same record: it grows.
    Platform_Util::GetSerialNumber(lun->serialNum, lun->targetName + lun->path, lun->serialNum);
    const std::string name = StorageObjectName(lun);

    std::string createBackstore =
        "targetcli /backstores/" + directory + " create " + source + " name=" + name + extra;
    if (m_targetCliVersion >= g_TargetCliVerFB43)
        createBackstore += " wwn=" + lun->serialNum;
    CRyError result = TargetCliUpdateObject(createBackstore, {"exists"});
    if (result.IsError())
        return result;

    std::string createLun = luns + " create storage_object=/backstores/" + directory + "/" + name;
    if (!automatic)
        createLun += " lun=" + std::to_string(SignedLunNumber(lun));
    result = TargetCliUpdateObject(createLun, {"already exists"});
    if (result.IsError() || !automatic)
        return result;  // the storage object stays

    // The second word of the object's line, "lunN", without "lun" and line feed.
    const std::string readNumber = luns + " ls | grep -w " + backstore.listedAs + name +
                                   " | awk '{print $2}' | tr -d '\n' | sed 's/lun//g'";
    std::string output;
    result = TargetCliReadObject(readNumber, output);
    if (result.IsError())
        return result;
    if (output.empty())
        return FXErrorUtil::ErrorErrNo(MO_HERE_AS(function), kErrorFailed,
                                       "cmd %s completed without any output", readNumber.c_str());
    // Throws when it isn't a number, and the configuration stays locked: nobody can tell what the
    // LUN's number is.
    lun->lunNum = static_cast<uint32_t>(std::stoi(output));
    return result;
}

CRyError MoScsiSrvLIO::DeleteByTargetCli(const TargetCliBackstore& backstore,
                                         const MoScsiSrvLun_t* lun) {
    CRyError result =
        TargetCliUpdateObject("targetcli /iscsi/" + lun->targetName +
                                  "/tpg1/luns delete lun=" + std::to_string(SignedLunNumber(lun)),
                              {"Invalid LUN"});
    if (result.IsError())
        return result;
    return TargetCliUpdateObject("targetcli /backstores/" + std::string(backstore.directory) +
                                     " delete name=" + StorageObjectName(lun),
                                 {"No storage object named"});
}
