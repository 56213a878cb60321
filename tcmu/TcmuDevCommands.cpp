// SCSI commands: which are handled, how, and the data path of READ and WRITE.

#include <algorithm>
#include <climits>
#include <new>

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "tcmu/SenseCodes.h"
#include "util/Log.h"

namespace {

enum class Action : uint8_t {
    NotHandled,
    TestUnitReady,
    Inquiry,
    ModeSelect,
    ModeSense,
    StartStopUnit,
    ReadCapacity10,
    ServiceActionIn16,
    Read,
    Write,
};

/// The whole SCSI surface of a user LUN (SPC-4, SBC-3). Every other opcode is not handled.
constexpr struct {
    uint8_t opcode;
    Action action;
} kCommands[] = {
    {0x00, Action::TestUnitReady},      // TEST UNIT READY
    {0x08, Action::Read},               // READ (6)
    {0x0A, Action::Write},              // WRITE (6)
    {0x12, Action::Inquiry},            // INQUIRY
    {0x15, Action::ModeSelect},         // MODE SELECT (6)
    {0x1A, Action::ModeSense},          // MODE SENSE (6)
    {0x1B, Action::StartStopUnit},      // START STOP UNIT
    {0x25, Action::ReadCapacity10},     // READ CAPACITY (10)
    {0x28, Action::Read},               // READ (10)
    {0x2A, Action::Write},              // WRITE (10)
    {0x55, Action::ModeSelect},         // MODE SELECT (10)
    {0x5A, Action::ModeSense},          // MODE SENSE (10)
    {0x88, Action::Read},               // READ (16)
    {0x8A, Action::Write},              // WRITE (16)
    {0x9E, Action::ServiceActionIn16},  // SERVICE ACTION IN (16): READ CAPACITY (16)
    {0xA8, Action::Read},               // READ (12)
    {0xAA, Action::Write},              // WRITE (12)
};

constexpr std::array<Action, 256> kActionOf = [] {
    std::array<Action, 256> actions{};
    for (const auto& command : kCommands)
        actions[command.opcode] = command.action;
    return actions;
}();

constexpr uint8_t kReadCapacity16 = 0x10;  // a service action of 0x9E

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

    switch (kActionOf[cdb[0]]) {
        case Action::TestUnitReady:
            if (m_platform->GetBStoreInfo(m_cfgString, m_bstoreInfo))
                return tcmu_emulate_test_unit_ready(cdb, cmd->iovec, cmd->iov_cnt, sense);
            MO_LOG(kLogError, "tur err: %s GetBStoreInfo error", m_cfgString.c_str());
            ++m_stats.commands[Stats::kNotReady];
            return SetSense(sense, kSenseBecomingReady);
        case Action::Inquiry:
            if (m_platform->GetBStoreInfo(m_cfgString, m_bstoreInfo))
                return Inquiry(cdb, cmd->iovec, cmd->iov_cnt, sense);
            MO_LOG(kLogError, "inquiry err: %s GetBStoreInfo error", m_cfgString.c_str());
            return SetSense(sense, kSenseTargetFailure);
        case Action::ModeSelect:
            return tcmu_emulate_mode_select(cdb, cmd->iovec, cmd->iov_cnt, sense);
        case Action::ModeSense:
            return tcmu_emulate_mode_sense(cdb, cmd->iovec, cmd->iov_cnt, sense);
        case Action::StartStopUnit:
            return tcmu_emulate_start_stop(m_dev, cdb, sense);
        case Action::ReadCapacity10:
            if (((cdb[1] | cdb[8]) & 0x01) == 0)  // neither RELADR, obsolete, nor PMI
                return tcmu_emulate_read_capacity_10(m_numLbas, blockSize, cdb, cmd->iovec,
                                                     cmd->iov_cnt, sense);
            MO_LOG(kLogError, "illegal cmd %s", m_cfgString.c_str());
            ++m_stats.commands[Stats::kIllegalRequests];
            return SetSense(sense, kSenseInvalidField);
        case Action::ServiceActionIn16:
            if (cdb[1] == kReadCapacity16) {  // the whole byte, reserved bits included
                ++m_stats.commands[kReadCapacity16];
                return tcmu_emulate_read_capacity_16(m_numLbas, blockSize, cdb, cmd->iovec,
                                                     cmd->iov_cnt, sense);
            }
            ++m_stats.commands[Stats::kCommandsNotHandled];
            MO_LOG(kLogError, "ioerr: command not handled %s", m_cfgString.c_str());
            return kNotHandled;
        case Action::Read:
            return StartTransfer(cmd, &MoScsiBStorOps::Read, tcmu_get_xfer_length(cdb));
        case Action::Write:
            // The transfer length field of WRITE (10), in all four WRITEs: this handler's rule.
            // Whoever feeds it other WRITEs gives them that form first.
            return StartTransfer(cmd, &MoScsiBStorOps::Write, cdb[7] << 8 | cdb[8]);
        case Action::NotHandled:
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
        return SetSense(cmd->sense_buf, kSenseBecomingReady);
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
