#include "host/data/LunData.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdint>
#include <new>

#include "host/data/BackingFile.h"
#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "host/data/MemoryEngine.h"
#include "host/data/ThreadQueue.h"
#include "host/data/UringQueue.h"
#include "util/Log.h"

namespace {

std::string NoThreads(const std::string& reason) {
    return fmt::format("it can't be served ({}): raise the limit of threads (ulimit -u, pids.max)",
                       reason);
}

std::unique_ptr<DataEngine> MakeQueueAndEngine(const LunDataConfig& config, BackingFile& file,
                                               Transfers& transfers, std::string& error) {
    const bool durable = config.faults.durable;
    if (config.engine != FileEngineChoice::Threads) {
        std::string reason;
        auto engine = FileEngine::Make(file, durable, transfers, UringQueue::Make, reason);
        if (engine)
            return engine;
        if (config.engine == FileEngineChoice::Uring) {
            error = fmt::format("no io_uring for {} ({}); allow it, or use engine = \"auto\"",
                                config.path, reason);
            return nullptr;
        }
        MO_LOG(kLogConfirm, "%s: no io_uring (%s), threads serve the file", config.name.c_str(),
               reason.c_str());
    }
    auto engine = FileEngine::Make(file, durable, transfers, ThreadQueue::Make, error);
    if (!engine)
        error = NoThreads(error);
    return engine;
}

std::unique_ptr<DataEngine> MakeFileEngine(const LunDataConfig& config, Transfers& transfers,
                                           std::string& error) {
    BackingFile file;
    if (!file.Open(config.path, config.sizeBytes, error))
        return nullptr;
    return MakeQueueAndEngine(config, file, transfers, error);
}

/// Returns: the engine, or null with one line in `error`.
std::unique_ptr<DataEngine> MakeEngine(const LunDataConfig& config, Transfers& transfers,
                                       std::string& error) {
    switch (config.backing) {
        case Backing::Memory:
            return MemoryEngine::Make(config.name, config.sizeBytes, transfers, error);
        case Backing::File:
            return MakeFileEngine(config, transfers, error);
    }
    return nullptr;
}

}  // namespace

const char* LunDataConfig::Place() const {
    switch (backing) {
        case Backing::Memory:
            return BackingName(backing);
        case Backing::File:
            return path.c_str();
    }
    return nullptr;
}

LunDataResult MakeLunData(const LunDataConfig& config, MoScsiSrvPlatform& platform) {
    LunDataResult result;
    if (config.sizeBytes == 0 || config.sizeBytes % 512 != 0 || config.sizeBytes > INT64_MAX) {
        result.error =
            fmt::format("a size of {} bytes; give a positive multiple of 512", config.sizeBytes);
        return result;
    }
    auto parts = std::make_unique<LunData::Parts>(config, platform);
    parts->engine = MakeEngine(config, parts->transfers, result.error);
    if (!parts->engine)
        return result;
    if (!config.faults.durable)
        MO_LOG(kLogError, "%s: durability is off, a power cut loses acknowledged writes",
               config.name.c_str());
    MO_LOG(kLogConfirm, "%s: %lu bytes in %s, served by %s", config.name.c_str(),
           static_cast<unsigned long>(config.sizeBytes), config.Place(), parts->engine->Name());
    try {
        result.data = std::make_unique<LunData>(std::move(parts));
    } catch (const std::system_error& fault) {
        result.error = NoThreads(NoThread(fault));
    }
    return result;
}

LunData::LunData(std::unique_ptr<Parts> parts) : m_parts(std::move(parts)) {
    m_parts->waitingRoom = std::make_unique<WaitingRoom>(m_parts->transfers, *m_parts->engine);
    const auto look = [&room = *m_parts->waitingRoom] { room.Look(); };
    m_parts->transfers.OnFreed(look);
    m_parts->engine->OnWaiting(look);
    SetCommandTimeOut(m_parts->config.commandTimeOut);
}

LunData::~LunData() {
    Stop();
}

CRyError LunData::Read(void* /*bstoreCtx*/, MoScsiSrvIO* ioctx, int /*reserved*/) {
    return Begin(ioctx, false);
}

CRyError LunData::Write(void* /*bstoreCtx*/, MoScsiSrvIO* ioctx, int /*reserved*/) {
    return Begin(ioctx, true);
}

CRyError LunData::Begin(MoScsiSrvIO* ioctx, bool write) {
    const FaultRule* const fault = m_parts->faults.Next(write);
    const uint64_t limit =
        fault != nullptr && fault->kind == FaultKind::Short ? fault->bytes : UINT64_MAX;
    Transfer* const transfer =
        m_parts->transfers.Open(ioctx, write, m_parts->config.sizeBytes, limit);
    if (transfer == nullptr)
        return CRyError::Success();
    try {
        if (fault == nullptr)
            BeginInOrder(*transfer);
        else
            BeginFaulty(*transfer, *fault);
    } catch (const std::bad_alloc&) {
        m_parts->transfers.Finish(transfer->ticket, -ENOMEM);  // the room had no place for it
    }
    return CRyError::Success();
}

void LunData::BeginInOrder(Transfer& transfer) {
    if (transfer.order.MayBegin())
        m_parts->engine->Start(transfer);
    else
        m_parts->waitingRoom->AwaitOrder(transfer);
}

void LunData::BeginFaulty(Transfer& transfer, const FaultRule& fault) {
    m_parts->transfers.CountFault();
    switch (fault.kind) {
        case FaultKind::Error:
            m_parts->transfers.Finish(transfer.ticket, -fault.errorNumber);
            break;
        case FaultKind::Short:
            BeginInOrder(transfer);
            break;
        case FaultKind::Delay:
            m_parts->waitingRoom->Delay(transfer, std::chrono::milliseconds(fault.delayMs));
            break;
        case FaultKind::Hold:
            m_parts->waitingRoom->HoldWhile(transfer, fault.whileFile);
            break;
    }
}

CRyError LunData::Abort(void* /*bstoreCtx*/, MoScsiSrvIO* ioctx) {
    if (m_parts->transfers.MarkAborted(ioctx))
        m_parts->waitingRoom->Look();
    else
        MO_LOG(kLogError, "%s: abort of context %p, which isn't on loan, is ignored",
               m_parts->config.name.c_str(), static_cast<void*>(ioctx));
    return CRyError::Success();
}

void LunData::SetCommandTimeOut(std::chrono::milliseconds timeOut) {
    m_parts->transfers.SetCommandTimeOut(timeOut);
}

LunStatistics LunData::Snapshot() const {
    LunStatistics statistics = m_parts->transfers.Counters();
    statistics.backing = m_parts->config.Place();
    statistics.engine = m_parts->engine->Name();
    return statistics;
}

void LunData::Stop() {
    m_parts->transfers.Shut();
    m_parts->waitingRoom->Look();
    m_parts->transfers.WaitUntilEmpty();
    m_parts->waitingRoom->Stop();
    m_parts->engine->Stop();
}
