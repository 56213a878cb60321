#include "host/service/HostLog.h"

LimitedFunctions InitiatorCaused() {
    return {
        "MoScsiSrvTcmuDev::TcmuDevCmdHandler(",  // what isn't known, or not configured yet
        "MoScsiSrvTcmuDev::TcmuDevIODone(",      // what the host failed
        "MoScsiSrvTcmuDev::Inquiry(",            // no memory
        "MoIoctxMgr::",
        "Transfers::",  // the host's data
        "LunData::Abort(",
        "UringQueue",
    };
}

std::shared_ptr<CLogWriterInterface> MakeHostLog(bool toSyslog, int level) {
    return toSyslog ? MakeSyslogLogWriter("moscsi-host", level, InitiatorCaused())
                    : MakeStderrLogWriter(level, InitiatorCaused());
}
