#pragma once

#include <gmock/gmock.h>

#include <algorithm>
#include <fstream>
#include <future>

#include "framework/GetGUID.h"
#include "framework/SmallFile.h"
#include "platform/MoScsiSrvLIO.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/TempDirectory.h"

using namespace testing;  // matchers

/// What the plug-in calls of the operating system, watched and made to fail. OsSeams.cpp stands in
/// for these calls in a program that is linked with --wrap; the real ones run unless something is
/// said here. Commands, sleeps, threads made, signals to threads and watched mutexes go to the
/// journal, CapturingLogWriter.
///
/// Thread: what is set here, before other threads run.
struct OsSeams {
    enum Call { kPopen, kClose, kSystem, kThreadCreate, kCalls };

    /// Lets the `nth` call from now on fail with `error`, of kSystem with this status. A close that
    /// fails has closed all the same.
    struct {
        int nth = 0;
        int error = 0;
    } fail[kCalls];

    /// Answers stat64: below 0 asks the real one, 0 finds something of type `mode`, else an errno.
    std::function<int(const std::string& path, mode_t& mode)> onStat;
    std::function<void(const std::string& command)> beforeSystem;
    /// Instead of sleeping, which throws without it.
    std::function<void()> onSleep;
};
inline OsSeams g_os;

/// Stands in for the TCMU runner's main loop, which also checks what is the same for every run.
struct FakeRunner {
    int result = 0;                 ///< what the main loop returns
    bool waitForInterrupt = false;  ///< return after a signal, not at once

    std::vector<std::string> arguments{};  ///< this and the next: valid once the thread was joined
    bool interrupted = false;
};
inline FakeRunner g_runner;

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
                  int reserved) {
        CapturingLogWriter::Installed().Note(operation);
        EXPECT_EQ(ctx, &held);
        EXPECT_EQ(reserved, 0);
        hook(ioctx);
        return ignored;
    }
};

using Strings = CapturingLogWriter::Strings;
inline Strings operator+(Strings first, const Strings& second) {
    first.insert(first.end(), second.begin(), second.end());
    return first;
}

/// The directory of the fake targetcli; in OsSeams.cpp, which the build tells it.
extern const char* const kFakeTargetcliPath;

/// A platform of its own for each test, with a fake targetcli first on PATH, a temporary directory
/// for configfs and for the service script, and a journal at level 5 (traces left out) that watches
/// both of the platform's mutexes as "cfg" and "map". At its end every file that was opened must be
/// closed.
struct MoScsiSrvLIOTest : Test {
    static constexpr const char* kNew = "2.1.fb43";  ///< the oldest version of the newer forms
    static constexpr const char* kOld = "2.1.fb42";

    const TempDirectory directory;
    const std::string dir = directory.path;
    CapturingLogWriter& journal = CapturingLogWriter::Installed();
    FakeRunner& runner = g_runner = {};
    HeldTransfers host;

    MoScsiSrvLIOTest() {
        static const std::string real = ConfigFSRoot();  // as it is before the first test
        EXPECT_EQ(real, "/sys/kernel/config/target/");
        static const std::string path = getenv("PATH");
        setenv("PATH", (std::string(kFakeTargetcliPath) + ":" + path).c_str(), 1);
        setenv("FAKE_TARGETCLI", dir.c_str(), 1);
        ConfigFSRoot() = dir + "/";
        MakePlatform();
        g_os = {};
        journal.Reset(5);
    }
    ~MoScsiSrvLIOTest() override {
        EXPECT_EQ(OpenFiles(), m_filesBefore);
        g_os = {};
        for (const char* name : CapturingLogWriter::kWatched)
            journal.Watch(name, nullptr);
        JoinRunner(Platform());
        SetInstance(nullptr);
    }

    /// Makes a platform in the place of the one that is there; its runner's thread has ended then,
    /// unless the runner waits.
    void MakePlatform() {
        m_platform = std::make_unique<MoScsiSrvLIO>();
        SetInstance(m_platform.get());
        if (!runner.waitForInterrupt)
            JoinRunner(Platform());
        Version() = kNew;
        journal.Watch("cfg", &m_platform->m_cfgMutex);
        journal.Watch("map", &m_platform->m_tcmuDevMapMutex);
    }
    MoScsiSrvLIO& Platform() { return *m_platform; }

    /// A record with the names in upper-case letters too.
    MoScsiSrvLun Lun(uint32_t type, uint32_t number = 3) {
        MoScsiSrvLun lun;
        lun.serialNum = "Ser";
        lun.lunNum = number;
        lun.targetName = "iqn.Ab";
        lun.path = "/Path";
        lun.bstorType = type;
        lun.size = uint64_t{1} << 33;
        lun.hostWord = 5;
        lun.hostQword1 = 6;
        lun.bstoreCtx = &host.held;
        lun.bstoreOps = &host;
        lun.hostQword3 = 8;
        return lun;
    }
    MoScsiSrvTarget target{"iqn.Ab"};
    MoScsiSrvHost initiator{"iqn.Host"};

    /// What targetcli prints on standard error and standard output when it is run with exactly
    /// these arguments, line feeds as in C, and fails. Otherwise it prints nothing and succeeds.
    void Answer(const std::string& arguments, const std::string& err,
                const std::string& out = "") const {
        std::ofstream(dir + "/answer") << arguments << '|' << out << '|' << err << '\n';
    }

    static std::string Guid(const std::string& text) {
        std::string guid;
        GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
        return guid;
    }
    static std::string Lower(std::string text) {
        std::ranges::transform(text, text.begin(), [](unsigned char c) { return tolower(c); });
        return text;
    }
    /// As the update runner gives a command to the shell.
    static std::string Updating(const std::string& command) {
        return Lower(command + " 2> /dev/stdout 1> /dev/null");
    }
    Strings Errors() { return journal.Texts(-1); }
    /// Expects an error of this number and text.
    static void ExpectError(const CRyError& error, int number, const std::string& message) {
        EXPECT_TRUE(error.IsError());  // number 0 is one too
        EXPECT_EQ(error.Code(), static_cast<int32_t>(0x80000000U | static_cast<uint32_t>(number)));
        EXPECT_EQ(error.Number(), number);
        EXPECT_EQ(error.Message(), message);
    }

    // ---- What is private in the platform
    std::string& Version() { return Platform().m_targetCliVersion; }
    static std::string& ConfigFSRoot() { return MoScsiSrvLIO::g_configFSRoot; }
    static Mutex& InstanceMutex() { return MoScsiSrvLIO::g_InstanceMutex; }
    /// Null: the next Instance() makes one.
    static void SetInstance(MoScsiSrvLIO* platform) { MoScsiSrvLIO::g_LioPlatform = platform; }
    std::string Name(const MoScsiSrvLun& lun) { return Platform().StorageObjectName(&lun); }
    std::string CfgString(MoScsiSrvLun lun) { return Platform().GetCfgString(&lun, true); }
    auto& Registry() { return Platform().m_tcmuDevMap; }
    /// Waits for the end of the runner's thread. It is not signalled any more afterwards.
    static void JoinRunner(MoScsiSrvLIO& platform) {
        if (platform.m_runnerStarted)
            pthread_join(platform.m_tcmuRunnerThread, nullptr);
        platform.m_runnerStarted = false;
    }
    Mutex& ConfigurationMutex() { return Platform().m_cfgMutex; }

  private:
    static std::ptrdiff_t OpenFiles() {
        return std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd"));
    }
    const std::ptrdiff_t m_filesBefore = OpenFiles();
    std::unique_ptr<MoScsiSrvLIO> m_platform;
};
