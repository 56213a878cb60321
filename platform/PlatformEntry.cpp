// The exported factory, the singleton and its life, and the runner's thread that it starts.

#include <pthread.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>

#include "framework/Export.h"
#include "framework/MOPlatformInfo.h"
#include "ioctx/IoctxStatistics.h"
#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "runner/Runner.h"
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

/// The runner's thread: runs the TCMU runner's main loop until it is interrupted.
/// Returns: null. There is no retry and no restart.
// In no namespace: its log lines show its signature.
static void* TcmuRunerThread(void* /*arg*/) {
    MO_TRACE(kTraceDetail);
    std::string baseDirectory;
    if (MOPlatformInfo::getString("Base", "dBASEHOME", &baseDirectory) == 0)
        MO_LOG(kLogError, "couldn't get MOPI_BASEHOME");  // the runner gets an empty path

    const std::string option = "--handler-path=" + baseDirectory;
    // Copies that are never freed: the runner keeps them.
    std::array<char*, 3> argv{strdup("tcmu_runner_main"), strdup(option.c_str()), nullptr};
    const auto statistics = RegisterIoctxStatistics();  // seen as long as the runner runs
    MO_LOG(kLogProgress, "starting tcmu_runner main %s", option.c_str());
    // NOLINTNEXTLINE(clang-analyzer-unix.Malloc): kept, see above
    if (tcmu_runner_main(2, argv.data()) != 0)
        MO_LOG(kLogError, "tcmu not initialized %s", option.c_str());
    return nullptr;
}

/// Starts TcmuRunerThread with SIGINT blocked from its first instruction on (the mask is
/// inherited), so that an interrupt sent right away can't end the process. The caller's own mask is
/// unchanged. Returns: false when the thread could not be made; `thread` is then undefined.
static bool StartRunnerThread(pthread_t& thread) {
    sigset_t interrupt;
    sigset_t callers;
    sigemptyset(&interrupt);
    sigaddset(&interrupt, SIGINT);
    pthread_sigmask(SIG_BLOCK, &interrupt, &callers);
    const int result = pthread_create(&thread, nullptr, TcmuRunerThread, nullptr);
    pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    return result == 0;
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
