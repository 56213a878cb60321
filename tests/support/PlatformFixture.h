#pragma once

#include <gmock/gmock.h>

#include <string>
#include <vector>

#include "platform/MoScsiSrvLIO.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeRunner.h"
#include "tests/support/FakeTargetcli.h"
#include "tests/support/OsSeams.h"

/// A directory that is removed with everything in it.
struct TemporaryDirectory {
    const std::string path;
    TemporaryDirectory();
    ~TemporaryDirectory();
};

/// A platform of its own for each test, with a fake targetcli, a temporary directory for configfs
/// and for the service script, and a journal at level 5 (traces left out) that watches both of the
/// platform's mutexes as "cfg" and "map". Every pipe that a test opens must be closed at its end,
/// and every mutex free.
struct MoScsiSrvLIOTest : testing::Test {
    using Strings = std::vector<std::string>;
    static constexpr const char* kNew = "2.1.fb43";  ///< the oldest version of the newer forms
    static constexpr const char* kOld = "2.1.fb42";

    TemporaryDirectory dir;
    FakeTargetcli targetcli{dir.path};
    CapturingLogWriter& journal = CapturingLogWriter::Installed();
    FakeRunner& runner = FakeRunner::The();

    MoScsiSrvLIOTest();
    ~MoScsiSrvLIOTest() override;

    /// Makes a platform in the place of the one that is there; its runner's thread has ended then,
    /// unless the runner waits.
    void MakePlatform();
    MoScsiSrvLIO& Platform() { return *m_platform; }

    /// A record with every field filled, the names with upper-case letters.
    static MoScsiSrvLun Lun(uint32_t type, uint32_t number = 3);
    MoScsiSrvTarget target{"iqn.Ab"};
    MoScsiSrvHost host{"iqn.Host"};

    static std::string Guid(const std::string& text);
    static std::string Lower(std::string text);
    /// As the update runner gives a command to the shell.
    static std::string Updating(const std::string& command) {
        return Lower(command + " 2> /dev/stdout 1> /dev/null");
    }
    Strings Errors() const { return journal.Texts(-1); }
    /// The commands among the events, without their "$ ".
    Strings Commands() const;

    // ---- What is private in the platform
    std::string& Version() { return Platform().m_targetCliVersion; }
    static std::string& ConfigFSRoot() { return MoScsiSrvLIO::g_configFSRoot; }
    static const void* InstanceMutex() { return &MoScsiSrvLIO::g_InstanceMutex; }
    /// Ends an instance that Instance() made itself; MakePlatform's is the instance again.
    void DiscardInstance();
    static void SetInstance(MoScsiSrvLIO* platform) { MoScsiSrvLIO::g_LioPlatform = platform; }
    CRyError Update(const std::string& command, Strings tolerated);
    CRyError Read(const std::string& command, std::string& out);
    CRyError System(const std::string& command) { return Platform().System(command); }
    std::string Name(const MoScsiSrvLun& lun) { return Platform().StorageObjectName(&lun); }
    std::string CfgString(MoScsiSrvLun lun) { return Platform().GetCfgString(&lun, true); }
    /// The registry's entry, or null.
    const std::pair<MoScsiSrvLun, MoScsiSrvTcmuDev*>* Entry(const std::string& key);
    size_t Entries() { return Platform().m_tcmuDevMap.size(); }
    /// Waits for the end of the runner's thread. It is not signalled any more afterwards.
    void JoinRunner();
    /// Whether the configuration is locked; `repair` unlocks it.
    bool ConfigurationLocked(bool repair = false);

  private:
    std::unique_ptr<MoScsiSrvLIO> m_platform;
};
