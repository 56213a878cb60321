// The host's way back to a device: the end of a transfer, by its context.

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "tcmu/MoScsiSrvTcmuDev.h"

CRyError MoScsiSrvLIO::IODone(MoScsiSrvIO* ioctx, long nbytes) {
    // Never null for a record that the host holds. The device logs and counts what it doesn't know.
    auto* const dev = static_cast<MoScsiSrvTcmuDev*>(m_ioctxMgr->Ioctx_GetPriv(ioctx));
    dev->TcmuDevIODone(ioctx, nbytes);
    return CRyError::Success();
}
