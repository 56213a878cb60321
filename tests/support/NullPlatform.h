#pragma once

#include "platform/MoScsiSrvPlatform.h"

/// A platform that does nothing and succeeds. Tests override what they look at.
struct NullPlatform : MoScsiSrvPlatform {
    CRyError Initialize() override { return {}; }
    CRyError CreateTarget(MoScsiSrvTarget_t*) override { return {}; }
    CRyError DeleteTarget(MoScsiSrvTarget_t*) override { return {}; }
    CRyError CreateLun(MoScsiSrvLun_t*) override { return {}; }
    CRyError DeleteLun(MoScsiSrvLun_t*) override { return {}; }
    CRyError MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*) override { return {}; }
    CRyError UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*) override { return {}; }
    CRyError IODone(MoScsiSrvIO*, long) override { return {}; }
    CRyError RegisterGetVPDCB(MoScsiSrvGetVPDCb_t) override { return {}; }
    CRyError Cleanup() override { return {}; }
};
