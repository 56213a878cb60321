// The life of a TCMU device's handler: construction, open, close. Commands stand in
// TcmuDevCommands.cpp, INQUIRY in TcmuDevInquiry.cpp.

#include "tcmu/MoScsiSrvTcmuDev.h"

#include <algorithm>
#include <ctime>

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "util/Log.h"

char MoScsiSrvTcmuDev::g_VendorID[8];
char MoScsiSrvTcmuDev::g_ProductID[16];
char MoScsiSrvTcmuDev::g_ProductRev[4];
Mutex MoScsiSrvTcmuDev::g_IdentityMutex;

namespace {

/// Pending commands for which every device has memory from the start.
constexpr size_t kWarmCommands = 512;

/// Writes `text`, zero-padded, where the field holds anything else.
template <size_t N>
void RewriteField(char (&field)[N], const char (&text)[N]) {
    if (!std::equal(field, field + N, text))
        std::copy(text, text + N, field);
}

}  // namespace

MoScsiSrvTcmuDev::MoScsiSrvTcmuDev(tcmu_device* dev) : m_dev(dev) {
    MO_TRACE(kTraceDetail);
    m_nodes.Reserve(kWarmCommands);
    m_pendingCmds.reserve(kWarmCommands);
    InitStats();
    SetIdentity();
    m_ioctxMgr = MoIoctxMgr::Instance();
    m_platform = MoScsiSrvLIO::Instance();
}

MoScsiSrvTcmuDev::~MoScsiSrvTcmuDev() {
    MO_TRACE(kTraceDetail);
    if (m_dev != nullptr)
        TcmuDevClose();
}

void MoScsiSrvTcmuDev::InitStats() {
    MO_TRACE(kTraceDetail);
    for (Stats::Counter* counter :
         {&m_stats.opens, &m_stats.openErrors, &m_stats.closes, &m_stats.closeErrors,
          &m_stats.abortedAtClose, &m_stats.waitsAtClose})
        *counter = 0;
    for (Stats::Counter& counter : m_stats.commands)
        counter = 0;
}

/// Every construction sets the identity, padded with zero bytes and not with spaces: this product
/// has always answered so. Devices that are open copy it without a lock. They may, because only the
/// first construction finds anything to write, and every device has taken the mutex since.
void MoScsiSrvTcmuDev::SetIdentity() {
    static const char vendor[sizeof g_VendorID] = {'T', 'R', 'V', 'X'};
    static const char product[sizeof g_ProductID] = {'M', 'o', 'S', 'c', 's', 'i', 'S', 'r', 'v'};
    static const char revision[sizeof g_ProductRev] = {'1', '.', '0'};
    g_IdentityMutex.lock();
    RewriteField(g_VendorID, vendor);
    RewriteField(g_ProductID, product);
    RewriteField(g_ProductRev, revision);
    g_IdentityMutex.unlock();
}

int MoScsiSrvTcmuDev::TcmuDevOpen() {
    MO_TRACE(kTraceDetail);
    ++m_stats.opens;
    if (m_dev == nullptr) {
        MO_LOG(kLogError, "device not initialized");
        return kOpenFailed;
    }
    m_cfgString = tcmu_get_dev_cfgstring(m_dev);
    if (m_cfgString.empty()) {
        // Neither counted nor forgotten: m_dev stays, and with it the close on destruction.
        MO_LOG(kLogError, "no configuration found in cfgstring");
        return kOpenFailed;
    }
    tcmu_set_dev_private(m_dev, this);

    const int block = tcmu_get_attribute(m_dev, "hw_block_size");
    bool opened = false;
    if (block <= 0) {  // no block size is no better than an unknown one: nothing divides by it
        MO_LOG(kLogError, "Could not get device block size\n");
    } else if (!SetGeometry(block)) {
        MO_LOG(kLogError, "Could not get device size\n");
    } else if (!m_platform->RegisterTcmuDev(this)) {
        MO_LOG(kLogError, "RegisterTcmuDev error");
    } else {
        opened = true;
    }
    if (!opened) {
        MO_LOG(kLogError, "open error %s", m_cfgString.c_str());
        ++m_stats.openErrors;
        Forget();
        return kOpenFailed;
    }
    MO_LOG(kLogConfirm, "open success %s %p", m_cfgString.c_str(), static_cast<void*>(this));
    return 0;
}

bool MoScsiSrvTcmuDev::SetGeometry(int block) {
    tcmu_set_dev_block_size(m_dev, static_cast<uint32_t>(block));
    const int64_t size = tcmu_get_device_size(m_dev);
    if (size < 0)
        return false;
    tcmu_set_dev_num_lbas(m_dev, static_cast<uint64_t>(size / block));
    // As the library has them, whatever it made of what it was told.
    m_blockSize = tcmu_get_dev_block_size(m_dev);
    m_numLbas = tcmu_get_dev_num_lbas(m_dev);
    return true;
}

void MoScsiSrvTcmuDev::TcmuDevClose() {
    MO_TRACE(kTraceDetail);
    if (m_dev == nullptr) {
        MO_LOG(kLogError, "tcmu dev close error, null m_dev");
        ++m_stats.closeErrors;
        return;
    }
    ++m_stats.closes;

    m_mutex.lock();
    size_t pending = m_pendingCmds.size();
    for (const auto& [ioctx, cmd] : m_pendingCmds) {
        MO_LOG(kLogProgress, "aborting cmd %p %p", static_cast<void*>(ioctx),
               static_cast<void*>(cmd));
        ++m_stats.abortedAtClose;
        // A device that never learnt its LUN's operations has nobody to call.
        if (m_bstoreInfo.first != nullptr)
            m_bstoreInfo.first->Abort(m_bstoreInfo.second, ioctx);
    }
    m_mutex.unlock();

    while (pending != 0) {
        MO_LOG(kLogProgress, "pending i/os %d", static_cast<int>(pending));
        ++m_stats.waitsAtClose;
        const timespec poll{2, 0};
        nanosleep(&poll, nullptr);
        pending = Pending();
    }

    if (!m_platform->UnRegisterTcmuDev(this))
        MO_LOG(kLogProgress, "UnRegisterTcmuDev error %s", m_cfgString.c_str());
    MO_LOG(kLogConfirm, "close success %s %p", m_cfgString.c_str(), static_cast<void*>(this));
    Forget();
}

/// Leaves the object closed.
void MoScsiSrvTcmuDev::Forget() {
    m_mutex.lock();  // for the name alone: a stray completion logs it
    m_dev = nullptr;
    m_cfgString.clear();
    m_bstoreInfo = {nullptr, nullptr};
    m_mutex.unlock();
}

size_t MoScsiSrvTcmuDev::Pending() {
    m_mutex.lock();
    const size_t pending = m_pendingCmds.size();
    m_mutex.unlock();
    return pending;
}
