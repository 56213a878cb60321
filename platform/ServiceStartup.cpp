// Start and stop of the LIO service: the service script, the version gate, the runner's interrupt.

#include <csignal>

#include "framework/MOPI_Base.h"
#include "framework/MoProcess.h"
#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"

CRyError MoScsiSrvLIO::Initialize() {
    MO_TRACE(kTraceLife);
    std::string out;
    std::string err;

    const std::string start =
        std::string(MOPI_Base().getHomeDirectory()) + "/moscsi_server.sh -start";
    MO_LOG(kLogProgress, "Excecuting %s", start.c_str());
    if (MoProcess::system(start, &out, &err, 0, false) != 0) {
        MO_LOG(kLogError, "cmd %s failed", start.c_str());
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "cmd %s failed", start.c_str());
    }

    out.clear();
    err.clear();
    // The version is the third word of the answer, on whichever stream it comes.
    const std::string version = "targetcli --version 2>&1  | cut -d' ' -f3";
    if (MoProcess::system(version, &out, &err, 0, false) != 0) {
        MO_LOG(kLogError, "cmd %s failed, install targetcli package", version.c_str());
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed, "cmd %s failed", version.c_str());
    }
    MO_LOG(kLogProgress, "targetcli version %s", out.c_str());
    if (!out.empty())  // no answer at all is older than any version
        out.pop_back();

    // As text, on purpose, here and wherever versions are compared: 2.1.fb5 is newer than 2.1.fb43.
    if (out < g_TargetCliVerFB41) {
        MO_LOG(kLogError, "targetcli version %s", out.c_str());
        return FXErrorUtil::ErrorErrNo(MO_HERE, kErrorFailed,
                                       "upgrade to targetcli version %s or higher",
                                       g_TargetCliVerFB41.c_str());
    }
    m_targetCliVersion = out;
    return CRyError::Success();
}

CRyError MoScsiSrvLIO::Cleanup() {
    MO_TRACE(kTraceLife);
    std::string out;
    std::string err;

    const std::string stop =
        std::string(MOPI_Base().getHomeDirectory()) + "/moscsi_server.sh -stop";
    MO_LOG(kLogProgress, "Excecuting %s", stop.c_str());
    if (MoProcess::system(stop, &out, &err, 0, false) != 0)
        MO_LOG(kLogError, "cmd %s failed", stop.c_str());

    // Not joined. A thread that could not be made must not be signalled: its id means nothing.
    if (m_runnerStarted)
        pthread_kill(m_tcmuRunnerThread, SIGINT);
    return CRyError::Success();
}
