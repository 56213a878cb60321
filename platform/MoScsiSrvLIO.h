#pragma once

#include <pthread.h>

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "framework/Mutex.h"
#include "platform/MoScsiSrvPlatform.h"

class MoIoctxMgr;
class MoScsiSrvTcmuDev;
struct FileBackstore;
struct TargetCliBackstore;

/// The platform over the kernel's LIO target: configures it by running commands, serves user
/// backstores through TCMU, and keeps the registry in which a user LUN and its device meet.
///
/// One object a process. Its operations stand in files named after their concern:
/// PlatformEntry, ServiceStartup, CommandRunner, TargetsAndMappings, LunDispatch, TargetCliLun
/// (what all backstores share), FileBackedLun (file and block variants), UserLun, UserLunConfigFS,
/// TcmuRegistry, IODone.
///
/// Lock order: m_cfgMutex and m_tcmuDevMapMutex are never held together. A device's mutex comes
/// before the I/O context manager's; neither is taken under one of this class's, nor the other way
/// round. Locks are taken and released by explicit calls: an exception while m_cfgMutex is held
/// leaves it held.
class MoScsiSrvLIO : public MoScsiSrvPlatform {
  public:
    /// The singleton, made at the first call. Thread: any.
    static MoScsiSrvLIO* Instance() MO_EXCLUDES(g_InstanceMutex);

    CRyError Initialize() override;
    CRyError CreateTarget(MoScsiSrvTarget_t* target) override MO_EXCLUDES(m_cfgMutex);
    CRyError DeleteTarget(MoScsiSrvTarget_t* target) override MO_EXCLUDES(m_cfgMutex);
    CRyError CreateLun(MoScsiSrvLun_t* lun) override MO_EXCLUDES(m_cfgMutex, m_tcmuDevMapMutex);
    CRyError DeleteLun(MoScsiSrvLun_t* lun) override MO_EXCLUDES(m_cfgMutex, m_tcmuDevMapMutex);
    CRyError MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override MO_EXCLUDES(m_cfgMutex);
    CRyError UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override MO_EXCLUDES(m_cfgMutex);
    CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) override;
    CRyError RegisterGetVPDCB(MoScsiSrvGetVPDCb_t cb) override;
    CRyError Cleanup() override;

    MoScsiSrvLIO();
    virtual ~MoScsiSrvLIO();

    MoScsiSrvLIO(const MoScsiSrvLIO&) = delete;
    MoScsiSrvLIO& operator=(const MoScsiSrvLIO&) = delete;

    // ---- The registry, for devices -----------------------------------------------------------

    /// Makes `dev` the device of the entry of its configuration string; an entry without a LUN is
    /// made when there is none.
    /// Returns: false when another device has the entry (logged).
    bool RegisterTcmuDev(MoScsiSrvTcmuDev* dev) MO_EXCLUDES(m_tcmuDevMapMutex);

    /// Clears the device of the entry; the LUN stays.
    /// Returns: false when there is no entry.
    bool UnRegisterTcmuDev(MoScsiSrvTcmuDev* dev) MO_EXCLUDES(m_tcmuDevMapMutex);

    /// Finds the host's operations of a LUN, by full configuration string.
    /// Returns: true and the pair in `out` when both halves are known; otherwise `out` is
    /// untouched.
    bool GetBStoreInfo(const std::string& name, std::pair<MoScsiBStorOps*, void*>& out)
        MO_EXCLUDES(m_tcmuDevMapMutex);

  private:
    friend struct MoScsiSrvLIOTest;

    // ---- Command runner (CommandRunner.cpp) --------------------------------------------------
    CRyError TargetCliUpdateObject(const std::string& cmd, std::vector<std::string> tolerated)
        MO_REQUIRES(m_cfgMutex);
    CRyError TargetCliReadObject(const std::string& cmd, std::string& out) MO_REQUIRES(m_cfgMutex);
    CRyError System(const std::string& cmd);

    // ---- LUNs (LunDispatch, TargetCliLun, FileBackedLun, UserLun, UserLunConfigFS) -----------
    using LunOperation = CRyError (MoScsiSrvLIO::*)(MoScsiSrvLun_t*);
    struct LunKind;
    CRyError DispatchLun(const char* function, MoScsiSrvLun_t* lun,
                         LunOperation LunKind::*operation);
    std::string StorageObjectName(const MoScsiSrvLun* lun);

    // What the three kinds of backstore share when they use targetcli. `function` is the signature
    // of the entry whose work it is, `source` and `extra` are the kind's own arguments of the
    // backstore's create command, before and after its name.
    CRyError CreateByTargetCli(const char* function, const TargetCliBackstore& backstore,
                               const std::string& source, const std::string& extra,
                               MoScsiSrvLun_t* lun) MO_REQUIRES(m_cfgMutex);
    CRyError DeleteByTargetCli(const TargetCliBackstore& backstore, const MoScsiSrvLun_t* lun)
        MO_REQUIRES(m_cfgMutex);

    CRyError CreateFileBackedLun(const char* function, const FileBackstore& kind,
                                 MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError DeleteFileBackedLun(const FileBackstore& kind, const MoScsiSrvLun_t* lun)
        MO_EXCLUDES(m_cfgMutex);
    CRyError CreateLun_BStorFile(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError DeleteLun_BStorFile(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError CreateLun_BStorBlkDev(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError DeleteLun_BStorBlkDev(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError CreateLun_BStorUser(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex, m_tcmuDevMapMutex);
    CRyError DeleteLun_BStorUser(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex, m_tcmuDevMapMutex);
    CRyError CreateLun_BStorUser_ConfigFS(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    CRyError DeleteLun_BStorUser_ConfigFS(MoScsiSrvLun_t* lun) MO_EXCLUDES(m_cfgMutex);
    std::string GetCfgString(MoScsiSrvLun_t* lun, bool withPrefix);
    std::string GetTcmuHBAPath(MoScsiSrvLun_t* lun);
    bool GetNextAvailableLunNum(MoScsiSrvLun_t* lun) MO_REQUIRES(m_cfgMutex);

    struct ConfigFSPaths;
    ConfigFSPaths GetConfigFSPaths(MoScsiSrvLun_t* lun);
    static std::string LunDirectory(const MoScsiSrvLun_t* lun, int number);
    CRyError RunInOrder(const std::vector<std::string>& commands) MO_REQUIRES(m_cfgMutex);

    static MoScsiSrvLIO* g_LioPlatform;
    static Mutex g_InstanceMutex;
    static std::string g_configFSRoot;
    static std::string g_tcmu_cfgstring_prefix;
    static std::string g_TargetCliVerFB41;
    static std::string g_TargetCliVerFB43;

    char m_outBuf[4096] MO_GUARDED_BY(m_cfgMutex);
    std::map<std::string, std::pair<MoScsiSrvLun, MoScsiSrvTcmuDev*>> m_tcmuDevMap
        MO_GUARDED_BY(m_tcmuDevMapMutex);
    Mutex m_tcmuDevMapMutex;
    Mutex m_cfgMutex;
    MoIoctxMgr* m_ioctxMgr;
    pthread_t m_tcmuRunnerThread;
    std::string m_targetCliVersion;  // written by Initialize, before configuration begins
    bool m_runnerStarted;            // without a thread there is nobody to interrupt
};
