// The factory, the runner's thread, Initialize, Cleanup, and the slots that host and plug-in call
// by position.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "adapters/framework/MOPlatformInfo.h"
#include "tests/support/TcmuDevFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;

namespace {

/// The operation in a slot, counted from 1, of an object's table of virtual operations.
template <typename Function>
Function* Slot(void* object, int number) {
    return reinterpret_cast<Function*>((*static_cast<void***>(object))[number - 1]);
}

}  // namespace

struct PlatformStartTest : MoScsiSrvLIOTest {
    const std::string script = dir + "/moscsi_server.sh";

    PlatformStartTest() {
        SetFacts("/base");
        Script("exit 0");
    }
    ~PlatformStartTest() override { MOPlatformInfo::setFacts({}); }

    void SetFacts(const char* baseDirectory) const {
        PlatformFacts facts;
        facts.homeDirectory = dir;
        if (baseDirectory != nullptr)
            facts.strings["Base"]["dBASEHOME"] = baseDirectory;
        MOPlatformInfo::setFacts(facts);
    }
    void Script(const std::string& text) const {
        std::ofstream(script) << "#!/bin/sh\necho \"$@\" >> " << dir << "/ran\n" << text << '\n';
        chmod(script.c_str(), 0755);
    }
    /// Without the line that the runner's thread logs beside the one that made it.
    Strings EventsWithoutRunner() const {
        Strings events = journal.Events();
        std::erase_if(events, [](const std::string& e) { return e.starts_with("[1] starting"); });
        return events;
    }
};

TEST_F(PlatformStartTest, RunnerStartsWithItsArgumentsAndSaysWhenItFailed) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    for (const char* base : {"/base", static_cast<const char*>(nullptr)}) {
        SetFacts(base);
        runner.result = base != nullptr ? 0 : 1;
        journal.Reset(-1);
        MakePlatform();
        const std::string option = std::string("--handler-path=") + (base != nullptr ? base : "");
        EXPECT_THAT(runner.arguments, ElementsAre("tcmu_runner_main", option));
        const Strings failed = {"couldn't get MOPI_BASEHOME", "tcmu not initialized " + option};
        EXPECT_EQ(Errors(), base != nullptr ? Strings() : failed);
        EXPECT_THAT(journal.Functions(), testing::Each("void* TcmuRunerThread(void*)"));
    }
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
}

TEST_F(PlatformStartTest, PlatformWithoutARunnerStillConfiguresAndSignalsNobody) {
    g_os.fail[OsSeams::kThreadCreate] = {1, ENOMEM};
    MakePlatform();
    EXPECT_THAT(Errors(),
                ElementsAre("pthread_create TcmuRunerThread error " + std::to_string(ENOMEM)));
    EXPECT_FALSE(Platform().CreateTarget(&target).IsError());
    EXPECT_FALSE(Platform().Cleanup().IsError());
    EXPECT_THAT(journal.Events(), Not(testing::Contains(HasSubstr("signal"))));
}

TEST_F(PlatformStartTest, TwoThreadsGetOnePlatformWithOneRunner) {
    SetInstance(nullptr);
    journal.Watch("instance", &InstanceMutex());
    journal.Reset(6);
    // The first one makes the platform; it waits here until the other one is inside too.
    g_os.onThreadCreate = [this] {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::ranges::count(journal.Functions(),
                                  "static MoScsiSrvLIO* MoScsiSrvLIO::Instance()") < 2 &&
               std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
    };
    void* platforms[2] = {};
    std::thread other([&] { platforms[0] = GetMOScsiPlatformObj(); });
    platforms[1] = GetMOScsiPlatformObj();
    other.join();
    Strings events = journal.Events();
    std::erase_if(events, [](const std::string& e) { return e.starts_with("["); });
    EXPECT_THAT(events, ElementsAre("+instance", "thread", "-instance", "+instance", "-instance"));
    EXPECT_EQ(platforms[0], platforms[1]);
    MoScsiSrvLIO* const made = MoScsiSrvLIO::Instance();
    EXPECT_EQ(platforms[0], made);
    JoinRunner(*made);
    delete made;
}

TEST_F(PlatformStartTest, InitializeRunsTheScriptAndAcceptsVersionsByTheirText) {
    const std::string ask = "targetcli --version 2>&1  | cut -d' ' -f3";
    const std::string upgrade = "upgrade to targetcli version 2.1.fb41 or higher";
    const std::string started = "[1] Excecuting " + script + " -start";
    const struct {
        std::string version;  // the third word of targetcli's answer
        bool onStandardError;
        std::string message;  // of the error
        Strings events;       // after the script's start
    } rows[] = {
        {"2.1.fb41", false, "", {"[1] targetcli version 2.1.fb41\n"}},
        {"2.1.fb5", true, "", {"[1] targetcli version 2.1.fb5\n"}},
        {"3.0", false, "", {"[1] targetcli version 3.0\n"}},
        {"2.1.fb40",
         false,
         upgrade,
         {"[1] targetcli version 2.1.fb40\n", "[-1] targetcli version 2.1.fb40"}},
        {"2.1.fb100",
         true,
         upgrade,
         {"[1] targetcli version 2.1.fb100\n", "[-1] targetcli version 2.1.fb100"}},
        {"", false, upgrade, {"[1] targetcli version ", "[-1] targetcli version "}},
        {"a script that fails",
         false,
         "cmd " + script + " -start failed",
         {"[-1] cmd " + script + " -start failed"}},
        {"no cut, so that the pipeline fails",
         false,
         "cmd " + ask + " failed",
         {"[-1] cmd " + ask + " failed, install targetcli package"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.version);
        const std::string answer = "/usr/bin/targetcli version " + row.version + "\\n";
        ForgetAnswers();
        if (!row.version.empty())
            Answer("--version", row.onStandardError ? answer : "",
                   row.onStandardError ? "" : answer);
        Script(row.version.starts_with("a script") ? "exit 3" : "exit 0");
        if (row.version.starts_with("no cut"))
            setenv("PATH", FAKE_TARGETCLI_PATH, 1);
        Version() = "";
        journal.Reset(1);
        const CRyError error = Platform().Initialize();
        Strings expected{"[1] enter", started};
        Append(expected, row.events);
        expected.emplace_back("[1] leave");
        EXPECT_EQ(journal.Events(), expected);
        EXPECT_EQ(error.Message(), row.message);
        EXPECT_EQ(error.Number(), row.message.empty() ? 0 : 774);
        EXPECT_EQ(Version(), row.message.empty() ? row.version : "");
    }
    EXPECT_EQ(Lines("ran"), Strings(std::size(rows), "-start"));
    EXPECT_EQ(Lines("calls").size(), 2 * (std::size(rows) - 1)) << "none after the script failed";
}

TEST_F(PlatformStartTest, CleanupInterruptsTheRunnerEvenWhenTheScriptFails) {
    const std::string command = script + " -stop";
    for (const bool fails : {false, true}) {
        runner = {.waitForInterrupt = true};
        Script(fails ? "exit 5" : "exit 0");
        MakePlatform();
        journal.Reset(1);
        EXPECT_FALSE(Platform().Cleanup().IsError());
        JoinRunner(Platform());
        EXPECT_TRUE(runner.interrupted);
        Strings expected{"[1] enter", "[1] Excecuting " + command};
        if (fails)
            expected.push_back("[-1] cmd " + command + " failed");
        Append(expected, {"signal 2", "[1] leave"});
        EXPECT_EQ(EventsWithoutRunner(), expected);
    }
    EXPECT_THAT(Lines("ran"), ElementsAre("-stop", "-stop"));
}

TEST_F(PlatformStartTest, SlotsOfThePlatformStandInOrderAndTrace) {
    tcmu_device library;
    MoScsiSrvTcmuDev device(&library);
    MoScsiSrvIO* const ioctx = MoIoctxMgr::Instance()->Ioctx_Alloc(1, &device);
    MoScsiSrvLun lun = Lun(0);
    const struct {
        std::string signature;
        void* argument;
        void* second;
        int level;
    } slots[] = {
        {"Initialize()", nullptr, nullptr, 1},
        {"CreateTarget(MoScsiSrvTarget_t*)", &target, nullptr, 6},
        {"DeleteTarget(MoScsiSrvTarget_t*)", &target, nullptr, 6},
        {"CreateLun(MoScsiSrvLun_t*)", &lun, nullptr, 6},
        {"DeleteLun(MoScsiSrvLun_t*)", &lun, nullptr, 6},
        {"MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", &lun, &initiator, 6},
        {"UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", &lun, &initiator, 6},
        {"IODone", ioctx, nullptr, -1},  // has no trace: the device's own message comes first
        {"RegisterGetVPDCB(MoScsiSrvGetVPDCb_t)", nullptr, nullptr, 6},
        {"Cleanup()", nullptr, nullptr, 1},
    };
    MoScsiSrvPlatform* const platform = &Platform();
    int number = 0;
    for (const auto& slot : slots) {
        journal.Reset(6, false);
        Slot<CRyError(void*, void*, void*)>(platform, ++number)(platform, slot.argument,
                                                                slot.second);
        const std::string entry =
            slot.level < 0 ? "int MoScsiSrvTcmuDev::TcmuDevIODone(MoScsiSrvIO*, long int)"
                           : "virtual CRyError MoScsiSrvLIO::" + slot.signature;
        EXPECT_EQ(journal.Functions().at(0), entry);
        EXPECT_THAT(journal.Events().at(0),
                    testing::StartsWith("[" + std::to_string(slot.level) +
                                        (slot.level < 0 ? "]" : "] enter")));
    }
    MoIoctxMgr::Instance()->Ioctx_Free(ioctx);
}

TEST_F(PlatformStartTest, SlotsOfTheHostsInterfacesStandInOrder) {
    CLogWriterInterface* const writer = &journal;
    journal.Reset(4);
    EXPECT_EQ(Slot<int(void*)>(writer, 9)(writer), 4);
    Slot<void(void*, int, const char*, int, int, int, const char*, ...)>(writer, 6)(
        writer, 2, "void f()", 1, 0, 0, "x%d", 5);
    host.onTransfer = host.onAbort;  // nothing
    MoScsiBStorOps* const ops = &host;
    for (const int slot : {9, 10, 11})
        Slot<CRyError(void*, void*, void*, int)>(ops, slot)(ops, &host.held, nullptr, 0);
    EXPECT_THAT(journal.Events(), ElementsAre("[2] x5", "Read", "Write", "Abort"));
}
