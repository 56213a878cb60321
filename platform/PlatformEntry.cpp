// The exported factory, the singleton and its life.

#include <cerrno>

#include "framework/Export.h"
#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "platform/RunnerThread.h"
#include "util/Log.h"

MoScsiSrvLIO* MoScsiSrvLIO::g_LioPlatform = nullptr;
Mutex MoScsiSrvLIO::g_InstanceMutex;
std::string MoScsiSrvLIO::g_configFSRoot = "/sys/kernel/config/target/";
std::string MoScsiSrvLIO::g_tcmu_cfgstring_prefix = "MoScsiSrvTcmu/";
std::string MoScsiSrvLIO::g_TargetCliVerFB41 = "2.1.fb41";
std::string MoScsiSrvLIO::g_TargetCliVerFB43 = "2.1.fb43";

extern "C" MO_EXPORT void* GetMOScsiPlatformObj() {
    MO_TRACE(kTraceLife);
    // The host takes it for a MoScsiSrvPlatform, so that is the pointer it must get.
    return static_cast<MoScsiSrvPlatform*>(MoScsiSrvLIO::Instance());
}

MoScsiSrvLIO* MoScsiSrvLIO::Instance() {
    MO_TRACE(kTraceDetail);
    g_InstanceMutex.lock();
    if (g_LioPlatform == nullptr)
        g_LioPlatform = new MoScsiSrvLIO();
    g_InstanceMutex.unlock();
    return g_LioPlatform;
}

MoScsiSrvLIO::MoScsiSrvLIO() {
    MO_TRACE(kTraceLife);
    m_ioctxMgr = MoIoctxMgr::Instance();
    m_runnerStarted = StartRunnerThread(m_tcmuRunnerThread);
    if (!m_runnerStarted) {
        // errno, not what pthread_create returned: that is how this line has always read.
        const int error = errno;
        MO_LOG(kLogError, "pthread_create TcmuRunerThread error %d", error);
    }
}

MoScsiSrvLIO::~MoScsiSrvLIO() {
    MO_TRACE(kTraceLife);
}
