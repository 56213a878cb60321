// The factory, the runner's thread, Initialize, Cleanup, and the slots that host and plug-in call
// by position.

#include <sys/stat.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <thread>

#include "adapters/framework/MOPlatformInfo.h"
#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "tests/support/FakeLibtcmu.h"
#include "tests/support/PlatformFixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

const std::string kVersionCommand = "targetcli --version 2>&1  | cut -d' ' -f3";

/// The operation in a slot, counted from 1, of an object's table of virtual operations.
template <typename Function>
Function* Slot(void* object, int number) {
    return reinterpret_cast<Function*>((*static_cast<void***>(object))[number - 1]);
}

}  // namespace

struct PlatformStartTest : MoScsiSrvLIOTest {
    const std::string script = dir.path + "/moscsi_server.sh";

    PlatformStartTest() {
        PlatformFacts facts;
        facts.homeDirectory = dir.path;
        facts.strings["Base"]["dBASEHOME"] = "/base";
        MOPlatformInfo::setFacts(facts);
        Script("exit 0");
    }
    ~PlatformStartTest() override { MOPlatformInfo::setFacts({}); }

    void Script(const std::string& text) const {
        std::ofstream(script) << "#!/bin/sh\necho \"$@\" >> " << dir.path << "/ran\n"
                              << text << '\n';
        chmod(script.c_str(), 0755);
    }
    std::string Ran() const {
        std::ifstream file(dir.path + "/ran");
        return {std::istreambuf_iterator<char>(file), {}};
    }
};

TEST_F(PlatformStartTest, RunnerGetsItsArgumentsAndABlockedInterrupt) {
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, nullptr, &before);
    MakePlatform();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, nullptr, &after);
    EXPECT_EQ(sigismember(&after, SIGINT), sigismember(&before, SIGINT));
    EXPECT_THAT(runner.arguments, ElementsAre("tcmu_runner_main", "--handler-path=/base"));
    EXPECT_TRUE(runner.endsInNull);
    EXPECT_TRUE(runner.interruptBlocked);
    // The runner's thread logs beside the one that made it, so its line has no fixed place.
    EXPECT_THAT(journal.Texts(1),
                testing::Contains("starting tcmu_runner main --handler-path=/base"));
    EXPECT_THAT(Errors(), IsEmpty());
}

TEST_F(PlatformStartTest, RunnerStartsWithoutABaseDirectoryAndSaysWhenItFailed) {
    MOPlatformInfo::setFacts({});
    runner.result = 1;
    MakePlatform();
    EXPECT_THAT(runner.arguments, ElementsAre("tcmu_runner_main", "--handler-path="));
    EXPECT_THAT(Errors(),
                ElementsAre("couldn't get MOPI_BASEHOME", "tcmu not initialized --handler-path="));
    for (const auto& line : journal.Lines()) {
        if (line.level < 0) {
            EXPECT_EQ(line.function, "void* TcmuRunerThread(void*)");
        }
    }
}

TEST_F(PlatformStartTest, PlatformWithoutARunnerStillConfiguresAndSignalsNobody) {
    os_seams::FailAt(os_seams::kThreadCreate, 1, ENOMEM);
    MakePlatform();
    EXPECT_THAT(Errors(),
                ElementsAre("pthread_create TcmuRunerThread error " + std::to_string(ENOMEM)));
    EXPECT_FALSE(Platform().CreateTarget(&target).IsError());
    EXPECT_FALSE(Platform().Cleanup().IsError());
    EXPECT_THAT(journal.Events(), testing::Not(testing::Contains(HasSubstr("signal"))));
}

TEST_F(PlatformStartTest, TwoThreadsGetOnePlatformWithOneRunner) {
    SetInstance(nullptr);
    os_seams::LockAttempts(InstanceMutex());
    // The first one makes the platform; it waits here until the other one is at the lock too.
    os_seams::onThreadCreate = [] {
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (os_seams::LockAttempts(InstanceMutex()) < 2 &&
               std::chrono::steady_clock::now() < limit)
            std::this_thread::yield();
    };
    void* platforms[2] = {};
    std::thread other([&] { platforms[0] = GetMOScsiPlatformObj(); });
    platforms[1] = GetMOScsiPlatformObj();
    other.join();
    EXPECT_EQ(platforms[0], platforms[1]);
    EXPECT_EQ(platforms[0], MoScsiSrvLIO::Instance());
    EXPECT_EQ(os_seams::Count(os_seams::kThreadCreate), 1);
    EXPECT_EQ(os_seams::LockAttempts(InstanceMutex()), 3);
    DiscardInstance();
}

TEST_F(PlatformStartTest, InitializeRunsTheScriptAndKeepsTheVersion) {
    targetcli.Answer("--version", "", "/usr/bin/targetcli version 2.1.fb43\\n", 0);
    Version() = "";
    journal.Reset(1);
    for (int i = 0; i < 2; ++i)  // it may be called again
        EXPECT_FALSE(Platform().Initialize().IsError());
    EXPECT_EQ(Ran(), "-start\n-start\n");
    EXPECT_EQ(Version(), "2.1.fb43");
    Strings texts = journal.Texts(1);
    texts.resize(4);
    EXPECT_THAT(texts, ElementsAre("enter", "Excecuting " + script + " -start",
                                   "targetcli version 2.1.fb43\n", "leave"));
}

TEST_F(PlatformStartTest, VersionsAreComparedAsText) {
    const struct {
        const char* version;  // the third word
        bool onStandardError;
        bool accepted;
    } cases[] = {{"2.1.fb41", false, true},  {"2.1.fb5", true, true},    {"3.0", false, true},
                 {"2.1.fb40", false, false}, {"2.1.fb100", true, false}, {"", false, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.version);
        Version() = "";
        targetcli.Reset();
        const std::string text =
            *c.version != '\0' ? std::string("targetcli version ") + c.version + "\\n" : "";
        targetcli.Answer("--version", c.onStandardError ? text : "", c.onStandardError ? "" : text);
        journal.Reset(0);
        const CRyError error = Platform().Initialize();
        EXPECT_EQ(error.IsError(), !c.accepted);
        EXPECT_EQ(Version(), c.accepted ? c.version : "");
        if (c.accepted) {
            EXPECT_THAT(Errors(), IsEmpty());
            continue;
        }
        EXPECT_EQ(error.Number(), 774);
        EXPECT_EQ(error.Message(), "upgrade to targetcli version 2.1.fb41 or higher");
        EXPECT_THAT(Errors(), ElementsAre(std::string("targetcli version ") + c.version));
    }
}

TEST_F(PlatformStartTest, InitializeStopsAtAStepThatFails) {
    Script("exit 3");
    CRyError error = Platform().Initialize();
    EXPECT_EQ(error.Number(), 774);
    EXPECT_EQ(error.Message(), "cmd " + script + " -start failed");
    EXPECT_THAT(Errors(), ElementsAre(error.Message()));
    EXPECT_THAT(targetcli.Calls(), IsEmpty());

    Script("exit 0");
    setenv("PATH", FakeTargetcli::kProgramDirectory, 1);  // no cut: the pipeline fails
    journal.Reset(0);
    error = Platform().Initialize();
    EXPECT_EQ(error.Number(), 774);
    EXPECT_EQ(error.Message(), "cmd " + kVersionCommand + " failed");
    EXPECT_THAT(Errors(),
                ElementsAre("cmd " + kVersionCommand + " failed, install targetcli package"));
}

TEST_F(PlatformStartTest, CleanupInterruptsTheRunnerEvenWhenTheScriptFails) {
    const std::string command = script + " -stop";
    for (const bool fails : {false, true}) {
        runner.Reset();
        runner.waitForInterrupt = true;
        Script(fails ? "exit 5" : "exit 0");
        MakePlatform();
        journal.Reset(1);
        EXPECT_FALSE(Platform().Cleanup().IsError());
        JoinRunner();
        EXPECT_TRUE(runner.interrupted);
        Strings events = journal.Events();
        std::erase_if(events, [](const std::string& event) {  // the runner's thread may be late
            return event.starts_with("[1] starting tcmu_runner");
        });
        Strings expected{"[1] enter", "[1] Excecuting " + command};
        if (fails)
            expected.push_back("[-1] cmd " + command + " failed");
        expected.insert(expected.end(), {"signal 2", "[1] leave"});
        EXPECT_EQ(events, expected);
    }
    EXPECT_EQ(Ran(), "-stop\n-stop\n");
}

TEST_F(PlatformStartTest, SlotsOfThePlatformStandInOrderAndTrace) {
    tcmu_device library;
    MoScsiSrvTcmuDev device(&library);
    MoScsiSrvIO* const ioctx = MoIoctxMgr::Instance()->Ioctx_Alloc(1, &device);
    MoScsiSrvLun lun = Lun(0);
    MoScsiSrvPlatform* const platform = &Platform();
    const char* const names[] = {"Initialize()",
                                 "CreateTarget(MoScsiSrvTarget_t*)",
                                 "DeleteTarget(MoScsiSrvTarget_t*)",
                                 "CreateLun(MoScsiSrvLun_t*)",
                                 "DeleteLun(MoScsiSrvLun_t*)",
                                 "MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)",
                                 "UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)",
                                 nullptr,  // IODone has no trace: the device's own entry follows
                                 "RegisterGetVPDCB(MoScsiSrvGetVPDCb_t)",
                                 "Cleanup()"};
    for (int slot = 1; slot <= 10; ++slot) {
        journal.Reset(6);
        const bool host = slot == 6 || slot == 7;
        void* const argument = slot == 8              ? static_cast<void*>(ioctx)
                               : slot > 3 && slot < 8 ? static_cast<void*>(&lun)
                               : slot == 9            ? nullptr
                                                      : static_cast<void*>(&target);
        const auto call = Slot<CRyError(void*, void*, void*)>(platform, slot);
        call(platform, argument, host ? static_cast<void*>(&this->host) : nullptr);
        const CapturingLogWriter::Line first = journal.Lines().at(0);
        if (slot == 8) {
            EXPECT_THAT(first.function, HasSubstr("MoScsiSrvTcmuDev::TcmuDevIODone"));
            continue;
        }
        EXPECT_EQ(first.function, std::string("virtual CRyError MoScsiSrvLIO::") + names[slot - 1]);
        EXPECT_EQ(first.text, "enter");
        EXPECT_EQ(first.level, slot == 1 || slot == 10 ? 1 : 6);
    }
    MoIoctxMgr::Instance()->Ioctx_Free(ioctx);
}

TEST_F(PlatformStartTest, SlotsOfTheHostsInterfacesStandInOrder) {
    CLogWriterInterface* const writer = &journal;
    journal.Reset(4);
    EXPECT_EQ(Slot<int(void*)>(writer, 9)(writer), 4);
    Slot<void(void*, int, const char*, int, int, int, const char*, ...)>(writer, 6)(
        writer, 2, "void f()", 1, 0, 0, "x%d", 5);
    EXPECT_THAT(journal.Texts(2), ElementsAre("x5"));

    struct Ops : MoScsiBStorOps {
        std::string called;
        CRyError Read(void*, MoScsiSrvIO*, int) override { return called += "read ", CRyError(); }
        CRyError Write(void*, MoScsiSrvIO*, int) override { return called += "write ", CRyError(); }
        CRyError Abort(void*, MoScsiSrvIO*) override { return called += "abort ", CRyError(); }
    } ops;
    MoScsiBStorOps* const table = &ops;
    for (const int slot : {9, 10, 11})
        Slot<CRyError(void*, void*, void*, int)>(table, slot)(table, nullptr, nullptr, 0);
    EXPECT_EQ(ops.called, "read write abort ");
}
