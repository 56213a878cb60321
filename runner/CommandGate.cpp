#include "runner/CommandGate.h"

#include <algorithm>
#include <chrono>
#include <limits>
#include <new>

#include "libtcmu/Device.h"
#include "libtcmu/Iovec.h"
#include "libtcmu/Opcodes.h"
#include "libtcmu/Sense.h"
#include "runner/DeviceHandler.h"
#include "util/Log.h"

namespace {

constexpr int kCompletesLater = -2;
constexpr int kBusyStatus = 0x08;  // SAM-5, 5.3.1

// Between two questions for the host's operations. An initiator that was logged in before a restart
// repeats its commands at once, thousands of times until the LUN is configured, and the handler
// logs each question that fails.
constexpr std::chrono::milliseconds kAskPause(200);

// What each verdict answers; the sense goes with CHECK CONDITION only.
struct GateAnswer {
    const char* counter;
    int status;
    SenseCode sense;
};

constexpr GateAnswer kAnswers[] = {
    {"gate: passed", TCMU_STATUS_GOOD, Sense::kNone},
    {"gate: zero blocks", TCMU_STATUS_GOOD, Sense::kNone},
    {"gate: synchronized", TCMU_STATUS_GOOD, Sense::kNone},
    {"gate: out of range", TCMU_STATUS_CHECK_CONDITION, Sense::kLbaOutOfRange},
    {"gate: protection", TCMU_STATUS_CHECK_CONDITION, Sense::kInvalidFieldInCdb},
    {"gate: no WRITE (10)", TCMU_STATUS_CHECK_CONDITION, Sense::kInvalidFieldInCdb},
    {"gate: short buffers", TCMU_STATUS_CHECK_CONDITION, Sense::kInvalidFieldInCdb},
    {"gate: too long", TCMU_STATUS_CHECK_CONDITION, Sense::kInvalidFieldInCdb},
    {"gate: not ready", TCMU_STATUS_CHECK_CONDITION, Sense::kNotReadyBecomingReady},
    {"gate: busy", kBusyStatus, Sense::kNone},
};
static_assert(std::size(kAnswers) == static_cast<size_t>(CommandGate::Verdict::kCount));

}  // namespace

CommandGate::CommandGate(tcmu_device& device, DeviceHandler& handler)
    : m_device(device),
      m_handler(handler),
      m_blockSize(tcmu_get_dev_block_size(&device)),
      m_numLbas(tcmu_get_dev_num_lbas(&device)) {
    constexpr uint64_t kWritable = uint64_t(1) << 32;
    if (m_numLbas > kWritable)
        MO_LOG(kLogError,
               "TCMU runner: %s has %llu blocks: those from %llu on can be read, not written",
               device.cfgString.c_str(), static_cast<unsigned long long>(m_numLbas),
               static_cast<unsigned long long>(kWritable));
    if (m_blockSize > 0)
        device.maxTransferBlocks = static_cast<uint32_t>(
            std::min<uint64_t>(std::max<uint64_t>(BouncePool::kMaxTransferBytes / m_blockSize, 1),
                               std::numeric_limits<uint16_t>::max()));
}

void CommandGate::Pass(RingCommand& command) {
    command.hm_private = nullptr;
    if (const auto data = DecodeDataCommand(command.cdb))
        PassData(command, *data);
    else
        PassOther(command);
}

void CommandGate::PassData(RingCommand& command, const DataCommand& data) {
    Verdict verdict = Judge(data, command.dataLength);
    if (verdict == Verdict::kPassed && !HostKnown())
        verdict = Verdict::kNotReady;
    if (verdict == Verdict::kPassed)
        verdict = Prepare(command, data);
    if (verdict != Verdict::kPassed) {
        Answer(command, verdict);
        return;
    }
    Count(m_verdicts[static_cast<size_t>(verdict)]);
    HandToHandler(command);
}

// What the gate makes for the command; nothing of it is left when there is no memory.
CommandGate::Verdict CommandGate::Prepare(RingCommand& command, const DataCommand& data) try {
    const Verdict verdict = FitBuffers(command, data);
    if (verdict != Verdict::kPassed)
        return verdict;
    const bool tenBytes = command.cdb[0] == Opcode::kRead10 || command.cdb[0] == Opcode::kWrite10;
    const bool zeroMeans256 = data.sixBytes && command.cdb[4] == 0;
    if (!tenBytes && (data.write || zeroMeans256)) {
        Reshaped& reshaped = ReshapedOf(command);
        EncodeTenBytes(data, reshaped.cdb.data());
        command.cdb = reshaped.cdb.data();
        Count(m_rewritten);
    }
    return Verdict::kPassed;
} catch (const std::bad_alloc&) {
    return Verdict::kBusy;
}

bool CommandGate::Within(uint64_t lba, uint64_t blocks) const {
    return lba <= m_numLbas && blocks <= m_numLbas - lba;
}

// The rules that need nothing but the command.
CommandGate::Verdict CommandGate::Judge(const DataCommand& data, uint64_t buffers) const {
    if (!Within(data.lba, data.blocks))
        return Verdict::kOutOfRange;
    if (data.protect != 0)
        return Verdict::kProtection;
    if (data.blocks == 0)
        return Verdict::kZeroBlocks;
    if (data.write && !FitsTenBytes(data))
        return Verdict::kDoesNotFit;
    if (buffers < data.blocks * m_blockSize)
        return Verdict::kShortBuffers;
    return Verdict::kPassed;
}

CommandGate::Verdict CommandGate::FitBuffers(RingCommand& command, const DataCommand& data) {
    const uint64_t bytes = data.blocks * m_blockSize;
    if (command.dataLength > bytes) {
        if (!data.write)
            Iovec::ClearFrom(command.iovec, command.iov_cnt, bytes);
        command.iov_cnt = Iovec::Clip(command.iovec, command.iov_cnt, bytes);
        Count(m_clipped);
    }
    if (!data.write) {
        // A longer one can't be stated, and the kernel has no command that expects more.
        if (bytes <= std::numeric_limits<uint32_t>::max())
            command.readLength = static_cast<uint32_t>(bytes);
        command.readBytes = bytes;
    }
    if (command.iov_cnt <= kMaxEntries)
        return Verdict::kPassed;
    Count(m_manyEntries);
    command.iov_cnt = Iovec::Merge(command.iovec, command.iov_cnt);
    if (command.iov_cnt <= kMaxEntries) {
        Count(m_merged);
        return Verdict::kPassed;
    }
    return Bounce(command, data, bytes);
}

CommandGate::Verdict CommandGate::Bounce(RingCommand& command, const DataCommand& data,
                                         uint64_t bytes) {
    if (bytes > BouncePool::kMaxBytes)
        return Verdict::kTooLong;
    Reshaped& reshaped = ReshapedOf(command);
    void* buffer = m_pool.Take(bytes);
    if (buffer == nullptr)
        return Verdict::kBusy;
    if (data.write)
        Iovec::Gather(command.iovec, command.iov_cnt, buffer, bytes);
    reshaped.flat = {buffer, bytes};
    reshaped.entries = command.iovec;
    reshaped.entryCount = command.iov_cnt;
    reshaped.write = data.write;
    command.iovec = &reshaped.flat;
    command.iov_cnt = 1;
    command.hm_private = &reshaped;
    Count(m_bounced);
    return Verdict::kPassed;
}

CommandGate::Verdict CommandGate::JudgeSynchronize(const uint8_t* cdb) {
    if (!HostKnown())
        return Verdict::kNotReady;
    return Within(tcmu_get_lba(cdb), tcmu_get_xfer_length(cdb)) ? Verdict::kSynchronized
                                                                : Verdict::kOutOfRange;
}

void CommandGate::PassOther(RingCommand& command) {
    const CommandKind kind = KindOf(command.cdb[0]);
    if (kind == CommandKind::kSynchronizeCache) {
        Answer(command, JudgeSynchronize(command.cdb));
        return;
    }
    const int result = m_handler.Handle(&command);
    if (result == kCompletesLater)
        return;
    if (result == TCMU_STATUS_GOOD) {
        // Both have made the handler fetch the host's operations, or they would have failed.
        if (kind == CommandKind::kTestUnitReady || kind == CommandKind::kInquiry)
            m_hostKnown = true;
        const uint64_t left = Iovec::Length(command.iovec, command.iov_cnt);
        Iovec::ClearFrom(command.iovec, command.iov_cnt, 0);
        command.readLength = static_cast<uint32_t>(command.dataLength - left);
    }
    tcmulib_command_complete(&m_device, &command, result);
}

bool CommandGate::HostKnown() {
    if (m_hostKnown)
        return true;
    const auto now = std::chrono::steady_clock::now();
    if (now < m_askAgain)
        return false;
    m_askAgain = now + kAskPause;
    std::array<uint8_t, 16> cdb{Opcode::kTestUnitReady};
    tcmulib_cmd command{};
    command.cdb = cdb.data();
    m_hostKnown = m_handler.Handle(&command) == TCMU_STATUS_GOOD;
    Count(m_ownTestUnitReady);
    return m_hostKnown;
}

void CommandGate::Answer(RingCommand& command, Verdict verdict) {
    const auto index = static_cast<size_t>(verdict);
    const GateAnswer& answer = kAnswers[index];
    Count(m_verdicts[index]);
    if (answer.status == TCMU_STATUS_CHECK_CONDITION)
        SetSense(command.sense_buf, answer.sense);
    else if (answer.status == TCMU_STATUS_GOOD)
        Iovec::ClearFrom(command.iovec, command.iov_cnt, 0);
    tcmulib_command_complete(&m_device, &command, answer.status);
}

void CommandGate::HandToHandler(RingCommand& command) {
    const int result = m_handler.Handle(&command);
    if (result != kCompletesLater)
        tcmulib_command_complete(&m_device, &command, result);
}

void CommandGate::Completing(RingCommand& command, int& result) {
    if (command.hm_private == nullptr)
        return;
    const auto& reshaped = *static_cast<Reshaped*>(command.hm_private);
    if (!reshaped.write && result == TCMU_STATUS_GOOD)
        Iovec::Scatter(reshaped.entries, reshaped.entryCount, reshaped.flat.iov_base);
    m_pool.Return(reshaped.flat.iov_base, reshaped.flat.iov_len);
    command.hm_private = nullptr;
}

CommandGate::Reshaped& CommandGate::ReshapedOf(const RingCommand& command) {
    if (m_reshaped.size() <= command.cmd_id)
        m_reshaped.resize(command.cmd_id + size_t(1));
    auto& reshaped = m_reshaped[command.cmd_id];
    if (!reshaped)
        reshaped = std::make_unique<Reshaped>();
    return *reshaped;
}

MoStatistics::Counters CommandGate::Counters() {
    MoStatistics::Counters counters;
    for (size_t i = 0; i < m_verdicts.size(); ++i)
        counters.emplace_back(kAnswers[i].counter, m_verdicts[i].load());
    counters.emplace_back("gate: rewritten", m_rewritten.load());
    counters.emplace_back("gate: clipped", m_clipped.load());
    counters.emplace_back("gate: more than 16 entries", m_manyEntries.load());
    counters.emplace_back("gate: merged", m_merged.load());
    counters.emplace_back("gate: bounced", m_bounced.load());
    counters.emplace_back("gate: own TEST UNIT READY", m_ownTestUnitReady.load());
    return counters;
}
