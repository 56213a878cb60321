// The end of a READ or WRITE: from the host's IODone to the kernel.

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "libtcmu/Sense.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "util/Log.h"

int MoScsiSrvTcmuDev::TcmuDevIODone(MoScsiSrvIO* ioctx, long nbytes) {
    m_mutex.lock();
    const auto pending = m_pendingCmds.find(ioctx);
    if (pending == m_pendingCmds.end()) {
        ++m_stats.commands[Stats::kUnknownCompletions];
        MO_LOG(kLogError, "%s: ioctx %p not found!", m_cfgString.c_str(),
               static_cast<void*>(ioctx));
        m_mutex.unlock();
        return 2;
    }

    tcmulib_cmd* cmd = pending->second;
    int status = 0;
    if (static_cast<uint64_t>(nbytes) != ioctx->length) {
        ++m_stats.commands[Stats::kIosFailed];
        MO_LOG(kLogError, "%s: ioerr off %lu len %lu nbytes %ld", m_cfgString.c_str(),
               ioctx->offset, ioctx->length, nbytes);
        status = SetMediumError(cmd->sense_buf);
    } else {
        ++m_stats.commands[Stats::kIosDone];
    }
    // Still under the mutex: a close that finds the map empty may let the device go.
    tcmulib_command_complete(m_dev, cmd, status);
    tcmulib_processing_complete(m_dev);
    m_pendingCmds.erase(pending);
    m_ioctxMgr->Ioctx_Free(ioctx);
    m_mutex.unlock();
    return 0;
}

int MoScsiSrvTcmuDev::SetMediumError(uint8_t* sense) {
    ++m_stats.commands[Stats::kMediumErrors];
    return SetSense(sense, Sense::kUnrecoveredReadError);
}
