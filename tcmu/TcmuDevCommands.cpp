// SCSI commands: how each is handled, and the data path of READ and WRITE, from the host's
// operation to its IODone. Which are handled stands in libtcmu/Opcodes.h.

#include <algorithm>
#include <climits>
#include <new>

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "libtcmu/Opcodes.h"
#include "libtcmu/Sense.h"
#include "platform/MoScsiSrvLIO.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "util/Log.h"

namespace {

constexpr uint8_t kReadCapacity16 = 0x10;  // a service action

}  // namespace

int MoScsiSrvTcmuDev::TcmuDevCmdHandler(tcmulib_cmd* cmd) {
    if (m_dev == nullptr) {
        MO_LOG(kLogError, "ioerr: dev not initialized %p", static_cast<void*>(this));
        return kNotHandled;
    }
    uint8_t* const cdb = cmd->cdb;
    uint8_t* const sense = cmd->sense_buf;
    const auto blockSize = static_cast<uint32_t>(m_blockSize);
    ++m_stats.commands[cdb[0]];  // 0xFF falls into the not-ready reports

    switch (KindOf(cdb[0])) {
        case CommandKind::kTestUnitReady:
            if (m_platform->GetBStoreInfo(m_cfgString, m_bstoreInfo))
                return tcmu_emulate_test_unit_ready(cdb, cmd->iovec, cmd->iov_cnt, sense);
            MO_LOG(kLogError, "tur err: %s GetBStoreInfo error", m_cfgString.c_str());
            ++m_stats.commands[Stats::kNotReady];
            return SetSense(sense, Sense::kNotReadyBecomingReady);
        case CommandKind::kInquiry:
            if (m_platform->GetBStoreInfo(m_cfgString, m_bstoreInfo))
                return Inquiry(cdb, cmd->iovec, cmd->iov_cnt, sense);
            MO_LOG(kLogError, "inquiry err: %s GetBStoreInfo error", m_cfgString.c_str());
            return SetSense(sense, Sense::kInternalTargetFailure);
        case CommandKind::kModeSelect:
            return tcmu_emulate_mode_select(cdb, cmd->iovec, cmd->iov_cnt, sense);
        case CommandKind::kModeSense:
            return tcmu_emulate_mode_sense(cdb, cmd->iovec, cmd->iov_cnt, sense);
        case CommandKind::kStartStopUnit:
            return tcmu_emulate_start_stop(m_dev, cdb, sense);
        case CommandKind::kReadCapacity10:
            if (((cdb[1] | cdb[8]) & 0x01) == 0)  // neither RELADR, obsolete, nor PMI
                return tcmu_emulate_read_capacity_10(m_numLbas, blockSize, cdb, cmd->iovec,
                                                     cmd->iov_cnt, sense);
            MO_LOG(kLogError, "illegal cmd %s", m_cfgString.c_str());
            ++m_stats.commands[Stats::kIllegalRequests];
            return SetSense(sense, Sense::kInvalidFieldInCdb);
        case CommandKind::kServiceActionIn16:
            if (cdb[1] == kReadCapacity16) {  // the whole byte, reserved bits included
                ++m_stats.commands[kReadCapacity16];
                return tcmu_emulate_read_capacity_16(m_numLbas, blockSize, cdb, cmd->iovec,
                                                     cmd->iov_cnt, sense);
            }
            ++m_stats.commands[Stats::kCommandsNotHandled];
            MO_LOG(kLogError, "ioerr: command not handled %s", m_cfgString.c_str());
            return kNotHandled;
        case CommandKind::kRead:
            return StartTransfer(cmd, &MoScsiBStorOps::Read, tcmu_get_xfer_length(cdb));
        case CommandKind::kWrite:
            // The transfer length field of WRITE (10), in all four WRITEs: this handler's rule.
            // Whoever feeds it other WRITEs gives them that form first.
            return StartTransfer(cmd, &MoScsiBStorOps::Write, cdb[7] << 8 | cdb[8]);
        case CommandKind::kSynchronizeCache:
        case CommandKind::kUnknown:
            break;
    }
    ++m_stats.commands[Stats::kCommandsNotHandled];
    return kNotHandled;
}

int MoScsiSrvTcmuDev::StartTransfer(tcmulib_cmd* cmd, StartOp start, uint64_t blocks) {
    const auto entries = static_cast<int>(std::min<size_t>(cmd->iov_cnt, INT_MAX));
    MoScsiSrvIO* ioctx = m_ioctxMgr->Ioctx_Alloc(entries, this);
    if (ioctx == nullptr)
        return SetMediumError(cmd->sense_buf);
    if (!AddPending(ioctx, cmd)) {
        m_ioctxMgr->Ioctx_Free(ioctx);
        return SetMediumError(cmd->sense_buf);
    }
    ioctx->offset = tcmu_get_lba(cmd->cdb) * m_blockSize;
    ioctx->length = m_blockSize * blocks;
    std::copy_n(cmd->iovec, cmd->iov_cnt, ioctx->iov);

    if (m_bstoreInfo.first == nullptr || m_bstoreInfo.second == nullptr) {
        // The context stays pending, and a close waits for it: there is nobody to give it back.
        return SetSense(cmd->sense_buf, Sense::kNotReadyBecomingReady);
    }
    // The host may complete before this call returns: neither record is ours from here on.
    (m_bstoreInfo.first->*start)(m_bstoreInfo.second, ioctx, 0);
    return kCompletesLater;
}

bool MoScsiSrvTcmuDev::AddPending(MoScsiSrvIO* ioctx, tcmulib_cmd* cmd) {
    bool added = true;
    m_mutex.lock();
    try {
        m_pendingCmds[ioctx] = cmd;
    } catch (const std::bad_alloc&) {
        added = false;
    }
    m_mutex.unlock();
    return added;
}

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
