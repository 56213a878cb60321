#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <string>
#include <vector>

#include "platform/MoScsiSrvLIO.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/OsSeams.h"

/// Stands in for the TCMU runner's main loop, which also checks what is the same for every run.
struct FakeRunner {
    int result = 0;                 ///< what the main loop returns
    bool waitForInterrupt = false;  ///< return after a SIGINT (or ten seconds), not at once

    std::vector<std::string> arguments{};  ///< this and the next: valid once the thread was joined
    bool interrupted = false;
};

/// The host's operations of a LUN, whose context is `held`: keeps the transfers that it is lent
/// unless told otherwise.
struct HeldTransfers : MoScsiBStorOps {
    using Hook = std::function<void(MoScsiSrvIO*)>;
    std::vector<MoScsiSrvIO*> held;
    Hook onTransfer = [this](MoScsiSrvIO* ioctx) { held.push_back(ioctx); };
    Hook onAbort = [](MoScsiSrvIO*) {};

    CRyError Read(void* ctx, MoScsiSrvIO* ioctx, int reserved) override {
        return Call("Read", onTransfer, ctx, ioctx, reserved);
    }
    CRyError Write(void* ctx, MoScsiSrvIO* ioctx, int reserved) override {
        return Call("Write", onTransfer, ctx, ioctx, reserved);
    }
    CRyError Abort(void* ctx, MoScsiSrvIO* ioctx) override {
        return Call("Abort", onAbort, ctx, ioctx, 0);
    }

  private:
    const CRyError ignored = FXErrorUtil::ErrorErrNo(FXCodeLocation("host", "f", 1), 5, "ignored");
    CRyError Call(const char* operation, const Hook& hook, void* ctx, MoScsiSrvIO* ioctx,
                  int reserved);
};

/// A platform of its own for each test, with a fake targetcli first on PATH, a temporary directory
/// for configfs and for the service script, and a journal at level 5 (traces left out) that watches
/// both of the platform's mutexes as "cfg" and "map". At its end every file
/// that was opened must be closed, and the configuration free.
struct MoScsiSrvLIOTest : testing::Test {
    using Strings = std::vector<std::string>;
    static constexpr const char* kNew = "2.1.fb43";  ///< the oldest version of the newer forms
    static constexpr const char* kOld = "2.1.fb42";

    const std::string dir;
    CapturingLogWriter& journal = CapturingLogWriter::Installed();
    static FakeRunner runner;
    HeldTransfers host;

    MoScsiSrvLIOTest();
    ~MoScsiSrvLIOTest() override;

    /// Makes a platform in the place of the one that is there; its runner's thread has ended then,
    /// unless the runner waits.
    void MakePlatform();
    MoScsiSrvLIO& Platform() { return *m_platform; }

    /// A record with the names in upper-case letters too.
    MoScsiSrvLun Lun(uint32_t type, uint32_t number = 3);
    MoScsiSrvTarget target{"iqn.Ab"};
    MoScsiSrvHost initiator{"iqn.Host"};

    /// What targetcli prints on standard error and standard output when it is run with exactly
    /// these arguments, line feeds as in C, and fails. Otherwise it prints nothing and succeeds.
    void Answer(const std::string& arguments, const std::string& err,
                const std::string& out = "") const;
    /// The lines of a file in `dir`; of "calls", "begin ARGUMENTS" and "end ARGUMENTS" of every
    /// run of targetcli.
    Strings Lines(const std::string& file) const;

    static std::string Guid(const std::string& text);
    static std::string Lower(std::string text);
    /// As the update runner gives a command to the shell.
    static std::string Updating(const std::string& command) {
        return Lower(command + " 2> /dev/stdout 1> /dev/null");
    }
    Strings Errors() const { return journal.Texts(-1); }
    /// Expects an error of this number and text.
    static void ExpectError(const CRyError& error, int number, const std::string& message);
    static void Append(Strings& to, const Strings& more) {
        to.insert(to.end(), more.begin(), more.end());
    }

    // ---- What is private in the platform
    std::string& Version() { return Platform().m_targetCliVersion; }
    static std::string& ConfigFSRoot() { return MoScsiSrvLIO::g_configFSRoot; }
    static Mutex& InstanceMutex() { return MoScsiSrvLIO::g_InstanceMutex; }
    /// Null: the next Instance() makes one.
    static void SetInstance(MoScsiSrvLIO* platform) { MoScsiSrvLIO::g_LioPlatform = platform; }
    CRyError Update(const std::string& command, Strings tolerated);
    CRyError Read(const std::string& command, std::string& out);
    CRyError System(const std::string& command) { return Platform().System(command); }
    std::string Name(const MoScsiSrvLun& lun) { return Platform().StorageObjectName(&lun); }
    std::string CfgString(MoScsiSrvLun lun) { return Platform().GetCfgString(&lun, true); }
    auto& Registry() { return Platform().m_tcmuDevMap; }
    /// Waits for the end of the runner's thread. It is not signalled any more afterwards.
    static void JoinRunner(MoScsiSrvLIO& platform);
    Mutex& ConfigurationMutex() { return Platform().m_cfgMutex; }

  private:
    const std::ptrdiff_t m_filesBefore;
    std::unique_ptr<MoScsiSrvLIO> m_platform;
};
