#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <utility>

#include "framework/Mutex.h"
#include "ioctx/MoScsiSrvIO.h"
#include "libtcmu/libtcmu.h"
#include "platform/MoScsiSrvObjects.h"
#include "util/NodePool.h"

class MoIoctxMgr;
class MoScsiSrvLIO;

/// The memory behind a device's pending map: a base, so that it outlives the map. It holds nodes
/// for the first 512 commands from the start, and keeps what more took.
class MoTcmuDevMemory {
  protected:
    NodePool m_nodes;  // used under the device's mutex only
};

/// Serves one TCMU device: the kernel's user backstore of one LUN.
///
/// Life: constructed with the library's device -> TcmuDevOpen (registers under the configuration
/// string) -> TcmuDevCmdHandler for each command -> TcmuDevClose (aborts, waits for the host's
/// contexts, unregisters). A failed open leaves the object closed.
///
/// Thread: open, handler and close run on the runner's threads, never two at once for one device;
/// TcmuDevIODone runs on any thread, at any time in between. Lock order: m_mutex, then the I/O
/// context manager's mutex.
class MoScsiSrvTcmuDev : private MoTcmuDevMemory {
  public:
    /// What the handler answers beside 0 and a CHECK CONDITION status.
    static constexpr int kOpenFailed = -22;
    static constexpr int kNotHandled = -1;
    static constexpr int kCompletesLater = -2;

    explicit MoScsiSrvTcmuDev(tcmu_device* dev);
    ~MoScsiSrvTcmuDev();

    MoScsiSrvTcmuDev(const MoScsiSrvTcmuDev&) = delete;
    MoScsiSrvTcmuDev& operator=(const MoScsiSrvTcmuDev&) = delete;

    /// Learns configuration string, block size and size of the device, and registers.
    /// Returns: 0, or -22 on every failure (logged).
    int TcmuDevOpen();

    /// Asks the host to give back what is pending, waits for it without limit, and unregisters.
    void TcmuDevClose() MO_EXCLUDES(m_mutex);

    /// Handles one command. `cmd` stays valid until it is completed.
    /// Returns: 0, a CHECK CONDITION status (sense is set), -1 not handled, or -2: TcmuDevIODone
    /// completes it, possibly before this returns; `cmd` must not be touched any more.
    int TcmuDevCmdHandler(tcmulib_cmd* cmd) MO_EXCLUDES(m_mutex);

    /// Completes the command of a context to the kernel and frees the context.
    /// Returns: 0, or 2 when the context isn't pending here (logged and counted).
    int TcmuDevIODone(MoScsiSrvIO* ioctx, long nbytes) MO_EXCLUDES(m_mutex);

    /// A copy of the configuration string, the registry's key; empty when closed.
    std::string TcmuDevCfgString() { return m_cfgString; }

    /// Counters, each raised by one, atomically.
    struct Stats {
        using Counter = std::atomic<uint64_t>;
        static constexpr size_t kOpcodes = 255;  // 0x00 to 0xFE

        // The per-opcode counters and those behind them, in this order, are one flat array: opcode
        // 0xFF falls into the counter behind its own 255, which counts not-ready reports.
        enum After : size_t {
            kNotReady = kOpcodes,
            kCommandsNotHandled,
            kIllegalRequests,
            kIosDone,
            kIosFailed,
            kUnknownCompletions,
            kMediumErrors,
            kCount
        };

        Counter opens;
        Counter openErrors;
        Counter closes;
        Counter closeErrors;
        Counter abortedAtClose;
        Counter waitsAtClose;
        std::array<Counter, kCount> commands;
    };
    const Stats& GetStats() const { return m_stats; }

    /// Commands that the host holds now.
    size_t Pending() MO_EXCLUDES(m_mutex);

  private:
    friend struct MoScsiSrvTcmuDevTest;

    using StartOp = CRyError (MoScsiBStorOps::*)(void* bstoreCtx, MoScsiSrvIO* ioctx, int reserved);

    void InitStats();
    static void SetIdentity() MO_EXCLUDES(g_IdentityMutex);
    bool SetGeometry(int block);
    void Forget() MO_EXCLUDES(m_mutex);
    int StartTransfer(tcmulib_cmd* cmd, StartOp start, uint64_t blocks) MO_EXCLUDES(m_mutex);
    bool AddPending(MoScsiSrvIO* ioctx, tcmulib_cmd* cmd) MO_EXCLUDES(m_mutex);
    int Inquiry(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense);
    int SetMediumError(uint8_t* sense);

    std::string m_cfgString;
    uint64_t m_blockSize = 0;
    uint64_t m_numLbas = 0;
    Mutex m_mutex;
    std::pmr::unordered_map<MoScsiSrvIO*, tcmulib_cmd*> m_pendingCmds MO_GUARDED_BY(m_mutex){
        &m_nodes};
    MoScsiSrvLIO* m_platform = nullptr;
    std::pair<MoScsiBStorOps*, void*> m_bstoreInfo{nullptr, nullptr};
    tcmu_device* m_dev;
    MoIoctxMgr* m_ioctxMgr = nullptr;
    Stats m_stats;

    static char g_VendorID[8];
    static char g_ProductID[16];
    static char g_ProductRev[4];
    static Mutex g_IdentityMutex;  // writers only; see SetIdentity
};
