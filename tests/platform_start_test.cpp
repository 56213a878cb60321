// The factory, the runner's thread, Initialize, Cleanup, and the slots that host and plug-in call
// by position.

#include <sys/stat.h>

#include "adapters/framework/MOPlatformInfo.h"
#include "tests/support/TcmuDevFixture.h"

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
};

TEST_F(PlatformStartTest, RunnerStartsWithItsArgumentsAndSaysWhenItFailed) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    for (const char* base : {"/base", static_cast<const char*>(nullptr)}) {
        SetFacts(base);
        runner.result = base != nullptr ? 0 : 1;
        journal.Reset(1);
        MakePlatform();
        const std::string option = std::string("--handler-path=") + (base != nullptr ? base : "");
        EXPECT_THAT(runner.arguments, ElementsAre("tcmu_runner_main", option));
        const Strings failed = {"couldn't get MOPI_BASEHOME", "tcmu not initialized " + option};
        EXPECT_EQ(Errors(), base != nullptr ? Strings() : failed);
        EXPECT_THAT(journal.Texts(1), Contains("starting tcmu_runner main " + option));
        EXPECT_EQ(std::ranges::count(journal.Functions(), "void* TcmuRunerThread(void*)"),
                  base != nullptr ? 1 : 3);
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
    EXPECT_THAT(journal.Events(), Not(Contains(HasSubstr("signal"))));
}

TEST_F(PlatformStartTest, FactoryMakesOnePlatformWithOneRunnerUnderItsLock) {
    SetInstance(nullptr);
    journal.Watch("instance", &InstanceMutex());
    void* const made = GetMOScsiPlatformObj();
    EXPECT_EQ(GetMOScsiPlatformObj(), made);
    const std::unique_ptr<MoScsiSrvLIO> platform(MoScsiSrvLIO::Instance());
    EXPECT_EQ(platform.get(), made);
    JoinRunner(*platform);
    Strings events = journal.Events();
    std::erase_if(events, [](const std::string& e) { return e.starts_with("["); });
    EXPECT_THAT(events, ElementsAre("+instance", "thread", "-instance", "+instance", "-instance",
                                    "+instance", "-instance"));
}

TEST_F(PlatformStartTest, InitializeRunsTheScriptAndAcceptsVersionsByTheirText) {
    const auto initialize = [&](const std::string& message, const Strings& events) {
        Version() = "";
        journal.Reset(1);
        const CRyError error = Platform().Initialize();
        EXPECT_EQ(error.Message(), message);
        EXPECT_EQ(error.Number(), message.empty() ? 0 : 774);
        Strings expected{"[1] enter", "[1] Excecuting " + script + " -start"};
        Append(expected, events);
        expected.emplace_back("[1] leave");
        EXPECT_EQ(journal.Events(), expected);
    };
    // The third word of targetcli's answer, whether on standard error, whether accepted.
    const std::tuple<std::string, bool, bool> rows[] = {
        {"2.1.fb41", false, true},  {"2.1.fb5", true, true},    {"3.0", false, true},
        {"2.1.fb40", false, false}, {"2.1.fb100", true, false}, {"", false, false}};
    for (const auto& [version, onStandardError, accepted] : rows) {
        const bool silent = version.empty();
        const std::string text = silent ? "" : "/usr/bin/targetcli version " + version + "\\n";
        Answer("--version", onStandardError ? text : "", onStandardError ? "" : text);
        Strings events{"[1] targetcli version " + version + (silent ? "" : "\n")};
        if (!accepted)
            events.push_back("[-1] targetcli version " + version);
        initialize(accepted ? "" : "upgrade to targetcli version 2.1.fb41 or higher", events);
        EXPECT_EQ(Version(), accepted ? version : "");
    }
    Script("exit 3");
    const std::string start = "cmd " + script + " -start failed";
    initialize(start, {"[-1] " + start});
    EXPECT_EQ(Lines("calls").size(), 2 * std::size(rows));

    Script("exit 0");
    setenv("PATH", kFakeTargetCli, 1);  // no cut: the pipeline fails
    const std::string ask = "cmd targetcli --version 2>&1  | cut -d' ' -f3 failed";
    initialize(ask, {"[-1] " + ask + ", install targetcli package"});
    EXPECT_EQ(Lines("ran"), Strings(std::size(rows) + 2, "-start"));
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
        Strings events = journal.Events();  // the runner's thread logs beside us
        std::erase_if(events, [](const std::string& e) { return e.starts_with("[1] starting"); });
        EXPECT_EQ(events, expected);
    }
    EXPECT_THAT(Lines("ran"), ElementsAre("-stop", "-stop"));
}

TEST_F(PlatformStartTest, SlotsOfThePlatformStandInOrderAndTrace) {
    tcmu_device library;
    MoScsiSrvTcmuDev device(&library);
    MoScsiSrvIO* const ioctx = MoIoctxMgr::Instance()->Ioctx_Alloc(1, &device);
    MoScsiSrvLun lun = Lun(0);
    const std::string ours = "virtual CRyError MoScsiSrvLIO::";
    // A slot's operation, what it is given, and the first event, from there.
    const std::tuple<std::string, void*, const char*> slots[] = {
        {ours + "Initialize()", nullptr, "[1] enter"},
        {ours + "CreateTarget(MoScsiSrvTarget_t*)", &target, "[6] enter"},
        {ours + "DeleteTarget(MoScsiSrvTarget_t*)", &target, "[6] enter"},
        {ours + "CreateLun(MoScsiSrvLun_t*)", &lun, "[6] enter"},
        {ours + "DeleteLun(MoScsiSrvLun_t*)", &lun, "[6] enter"},
        {ours + "MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", &lun, "[6] enter"},
        {ours + "UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", &lun, "[6] enter"},
        {"int MoScsiSrvTcmuDev::TcmuDevIODone(MoScsiSrvIO*, long int)", ioctx, "[-1] : ioctx"},
        {ours + "RegisterGetVPDCB(MoScsiSrvGetVPDCb_t)", nullptr, "[6] enter"},
        {ours + "Cleanup()", nullptr, "[1] enter"},
    };
    MoScsiSrvPlatform* const platform = &Platform();
    int number = 0;
    for (const auto& [signature, argument, event] : slots) {
        journal.Reset(6, false);
        Slot<CRyError(void*, void*, void*)>(platform, ++number)(platform, argument, &initiator);
        EXPECT_EQ(journal.Functions().at(0), signature);
        EXPECT_THAT(journal.Events().at(0), StartsWith(event));
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
