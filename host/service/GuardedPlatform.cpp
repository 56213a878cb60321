#include "host/service/GuardedPlatform.h"

#include <cerrno>

#include "framework/ExceptionOf.h"

CRyError GuardedPlatform::Call(const char* operation, const std::function<CRyError()>& call) {
    const FXCodeLocation here(__FILE__, __PRETTY_FUNCTION__, __LINE__);
    if (!m_fault.empty())
        return FXErrorUtil::ErrorErrNo(here, ECANCELED, "%s isn't called any more: %s", operation,
                                       m_fault.c_str());
    CRyError result;
    const auto thrown = ExceptionOf([&] { result = call(); });
    if (!thrown)
        return result;
    m_fault = std::string(operation) + " ended with an exception (" + *thrown + ")";
    m_thrown(m_fault);
    return FXErrorUtil::ErrorErrNo(here, ENOTRECOVERABLE, "%s", m_fault.c_str());
}

CRyError GuardedPlatform::Initialize() {
    return Call("Initialize", [&] { return m_platform.Initialize(); });
}

CRyError GuardedPlatform::CreateTarget(MoScsiSrvTarget_t* target) {
    return Call("CreateTarget", [&] { return m_platform.CreateTarget(target); });
}

CRyError GuardedPlatform::DeleteTarget(MoScsiSrvTarget_t* target) {
    return Call("DeleteTarget", [&] { return m_platform.DeleteTarget(target); });
}

CRyError GuardedPlatform::CreateLun(MoScsiSrvLun_t* lun) {
    return Call("CreateLun", [&] { return m_platform.CreateLun(lun); });
}

CRyError GuardedPlatform::DeleteLun(MoScsiSrvLun_t* lun) {
    return Call("DeleteLun", [&] { return m_platform.DeleteLun(lun); });
}

CRyError GuardedPlatform::MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) {
    return Call("MapHost", [&] { return m_platform.MapHost(lun, host); });
}

CRyError GuardedPlatform::UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) {
    return Call("UnMapHost", [&] { return m_platform.UnMapHost(lun, host); });
}

CRyError GuardedPlatform::IODone(MoScsiSrvIO* ioctx, long nbytes) {
    return m_platform.IODone(ioctx, nbytes);
}

CRyError GuardedPlatform::RegisterGetVPDCB(MoScsiSrvGetVPDCb_t callback) {
    return Call("RegisterGetVPDCB", [&] { return m_platform.RegisterGetVPDCB(callback); });
}

CRyError GuardedPlatform::Cleanup() {
    return Call("Cleanup", [&] { return m_platform.Cleanup(); });
}
