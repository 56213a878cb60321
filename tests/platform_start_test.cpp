// The factory, the runner's thread, Initialize, Cleanup, and the slots that host and plug-in call
// by position.

#include <sys/stat.h>

#include "framework/MOPlatformInfo.h"
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
        Script("echo made /etc/target; echo such things come first >&2");
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

TEST_F(PlatformStartTest, RunnerGetsItsArgumentsAndTheInterruptWhateverFails) {
    const std::string command = script + " -stop";
    const std::string failed = "cmd " + command + " failed";
    for (const bool fails : {false, true}) {
        SetFacts(fails ? nullptr : "/base");
        Script(fails ? "exit 5" : "exit 0");
        runner = {.result = fails ? 1 : 0, .waitForInterrupt = true};
        journal.Reset(1);
        MakePlatform();
        EXPECT_FALSE(Platform().Cleanup().IsError());
        JoinRunner(Platform());
        EXPECT_TRUE(runner.interrupted);
        const std::string option = std::string("--handler-path=") + (fails ? "" : "/base");
        EXPECT_THAT(runner.arguments, ElementsAre("tcmu_runner_main", option));
        EXPECT_THAT(journal.Texts(1), Contains("starting tcmu_runner main " + option));
        EXPECT_THAT(Errors(),
                    UnorderedElementsAreArray(fails ? Strings({"couldn't get MOPI_BASEHOME", failed,
                                                               "tcmu not initialized " + option})
                                                    : Strings()));
        Strings events = journal.Events();
        std::erase_if(events, [&](const std::string& event) {
            return event.find(command) == event.npos && event != "signal 2";
        });
        Strings expected{"[1] Excecuting " + command, "signal 2"};
        expected.insert(expected.begin() + 1, fails ? 1 : 0, "[-1] " + failed);
        EXPECT_EQ(events, expected);
    }
    EXPECT_EQ(ReadSmallFile(dir + "/ran"), "-stop\n-stop\n");
    sigset_t mask;  // of this thread, which goes on as it was
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_EQ(sigismember(&mask, SIGINT), 0);
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
    journal.Reset(-1);
    journal.Watch("instance", &InstanceMutex());
    void* const made = GetMOScsiPlatformObj();
    EXPECT_EQ(GetMOScsiPlatformObj(), made);
    const std::unique_ptr<MoScsiSrvLIO> platform(MoScsiSrvLIO::Instance());
    EXPECT_EQ(platform.get(), made);
    JoinRunner(*platform);
    EXPECT_THAT(journal.Events(), ElementsAre("+instance", "thread", "-instance", "+instance",
                                              "-instance", "+instance", "-instance"));
}

TEST_F(PlatformStartTest, InitializeRunsTheScriptAndAcceptsVersionsByTheirText) {
    const auto initialize = [&](const std::string& message, const Strings& events) {
        Version() = "known";
        journal.Reset(1);
        const CRyError error = Platform().Initialize();
        EXPECT_EQ(error.Message(), message);
        EXPECT_EQ(error.Number(), message.empty() ? 0 : 774);
        EXPECT_EQ(journal.Events(), Strings({"[1] enter", "[1] Excecuting " + script + " -start"}) +
                                        events + Strings({"[1] leave"}));
        EXPECT_TRUE(message.empty() || Version() == "known");
    };
    // The third word of targetcli's answer, and whether it is accepted.
    const std::pair<std::string, bool> rows[] = {{"2.1.fb41", true},   {"2.1.fb5", true},
                                                 {"3.0", true},        {"2.1.fb40", false},
                                                 {"2.1.fb100", false}, {"", false}};
    for (const auto& [version, accepted] : rows) {
        const bool silent = version.empty();
        const std::string text = silent ? "" : "/usr/bin/targetcli version " + version + "\\n";
        Answer("--version", accepted ? text : "", accepted ? "" : text);  // on either stream
        Strings events{"[1] targetcli version " + version + (silent ? "" : "\n")};
        if (!accepted)
            events.push_back("[-1] targetcli version " + version);
        initialize(accepted ? "" : "upgrade to targetcli version 2.1.fb41 or higher", events);
        EXPECT_EQ(Version(), accepted ? version : "known");
    }
    Script("exit 3");
    const std::string start = "cmd " + script + " -start failed";
    initialize(start, {"[-1] " + start});

    Script("exit 0");
    setenv("PATH", FAKE_TARGETCLI_PATH, 1);  // no cut: the pipeline fails
    const std::string ask = "cmd targetcli --version 2>&1  | cut -d' ' -f3 failed";
    initialize(ask, {"[-1] " + ask + ", install targetcli package"});
    EXPECT_EQ(ReadSmallFile(dir + "/ran")->size(), 8 * strlen("-start\n"));
}

TEST_F(PlatformStartTest, SlotsOfThePlatformStandInOrderSucceedAndTrace) {
    tcmu_device library;
    MoScsiSrvTcmuDev device(&library);
    MoScsiSrvIO* const ioctx = MoIoctxMgr::Instance()->Ioctx_Alloc(1, &device);
    MoScsiSrvLun lun = Lun(BSTOR_FILE);
    lun.path = script;  // a file that is there
    Answer("--version", "targetcli version 3.0\\n");
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
        const CRyError result =
            Slot<CRyError(void*, void*, void*)>(platform, ++number)(platform, argument, &initiator);
        EXPECT_EQ(result.Message(), "");
        EXPECT_EQ(journal.Functions().at(0), signature);
        EXPECT_THAT(journal.Events().at(0), StartsWith(event));
    }
    MoIoctxMgr::Instance()->Ioctx_Free(ioctx);
}

TEST_F(PlatformStartTest, WhatElseIsTracedIsTracedOnceAtItsLevel) {
    tcmu_device library;
    g_os.onStat = [](const std::string&, mode_t&) { return EACCES; };
    journal.Reset(6, false);
    MakePlatform();
    GetMOScsiPlatformObj();
    // Of level 6: the runner's thread, the instance for the factory and the device, and seven of
    // the device and the registry; of each LUN two operations twice, with their commands.
    EXPECT_EQ(MoScsiSrvTcmuDev(&library).TcmuDevOpen(), 0);
    for (const char* version : {kNew, kOld}) {
        Version() = version;
        for (const uint32_t type : {BSTOR_FILE, BSTOR_BLKDEV, BSTOR_USER}) {
            MoScsiSrvLun lun = Lun(type, 0xFFFFFFFF);
            EXPECT_TRUE(Platform().CreateLun(&lun).IsError());
            Registry()[CfgString(lun)];
            Platform().DeleteLun(&lun);
        }
    }
    const Strings events = journal.Events();
    EXPECT_EQ(std::ranges::count(events, "[1] enter"), 3);  // the platforms and the factory
    EXPECT_EQ(std::ranges::count(events, "[6] enter"), 10 + 4 * 6 + 9 + 6);
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
