// Every operation that targetcli carries out: its commands in order, the lock around them, what it
// confirms, and what a step that fails leads to.

#include <sys/stat.h>

#include <algorithm>
#include <functional>
#include <thread>

#include "tests/support/PlatformFixture.h"

using testing::ElementsAreArray;

namespace {

struct Step {
    std::string command;
    std::vector<std::string> tolerated;  // beside "exists" and "Exists"
};

struct Operation {
    std::function<CRyError(MoScsiSrvLIO&)> run;
    std::string signature;
    std::string confirmation;
    std::vector<Step> steps;
    // Events around the commands: before them, and after them when all went well.
    std::vector<std::string> before;
    std::vector<std::string> after;
};

/// Everything that some step tolerates, and what looks like it.
const std::vector<std::string> kTolerated = {"No such Target in configfs",
                                             "Created Node ACL",
                                             "Created Mapped LUN",
                                             "doesn't exist!",
                                             "Invalid LUN",
                                             "No such MappedLUN in configfs",
                                             "No storage object named",
                                             "no such target in configFS",
                                             "EXISTS"};

}  // namespace

struct PlatformOperationsTest : MoScsiSrvLIOTest {
    MoScsiSrvLun lun = Lun(BSTOR_FILE);
    const std::string name = Guid("MoScsiSrv-iqn.Ab-/Path").substr(0, 15);
    const std::string serial = "Ser-" + Guid("iqn.Ab/Path");

    PlatformOperationsTest() {
        // Whatever the path, it is what the kind of LUN wants.
        os_seams::onStat = [this](const std::string& path, mode_t& mode) {
            EXPECT_EQ(path, "/Path");
            mode = (lun.bstorType == BSTOR_FILE ? S_IFREG : S_IFBLK) | 0644;
            return 0;
        };
    }

    std::vector<Operation> Operations() {
        std::vector<Operation> all;
        const std::string acls = "targetcli /iscsi/iqn.Ab/tpg1/acls";
        const std::string mapped = "[0] Target iqn.Ab Lun 3 Host iqn.Host";
        const auto add = [&all](auto run, const char* signature, const std::string& text,
                                const std::vector<Step>& steps) {
            all.push_back({run, signature, text, steps, {"+cfg"}, {text, "-cfg"}});
        };
        add([this](MoScsiSrvLIO& p) { return p.CreateTarget(&target); },
            "CreateTarget(MoScsiSrvTarget_t*)", "[0] Target iqn.Ab",
            {{"targetcli /iscsi create iqn.Ab", {}}});
        add([this](MoScsiSrvLIO& p) { return p.DeleteTarget(&target); },
            "DeleteTarget(MoScsiSrvTarget_t*)", "[0] Target iqn.Ab",
            {{"targetcli /iscsi delete iqn.Ab", {"No such Target in configfs"}}});
        add([this](MoScsiSrvLIO& p) { return p.MapHost(&lun, &host); },
            "MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", mapped,
            {{acls + " create add_mapped_luns=false wwn=iqn.Host", {"Created Node ACL"}},
             {acls + "/iqn.Host create tpg_lun_or_backstore=3 mapped_lun=3",
              {"Created Mapped LUN"}}});
        add([this](MoScsiSrvLIO& p) { return p.UnMapHost(&lun, &host); },
            "UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)", mapped,
            {{acls + "/iqn.Host delete mapped_lun=3",
              {"No such MappedLUN in configfs", "doesn't exist!"}}});
        const std::string wwn = " wwn=" + serial;
        AddLun(all, BSTOR_FILE, "fileio", "file_or_dev=/Path name=" + name + wwn);
        AddLun(all, BSTOR_BLKDEV, "block", "dev=/Path name=" + name + wwn);
        AddLun(all, BSTOR_BLKDEV2, "block", "dev=/Path name=" + name + wwn);
        AddLun(all, BSTOR_USER, "user:MoScsiSrvTcmu",
               "cfgstring=" + Guid("iqn.Ab/Path") + " name=" + name + " size=8589934592" + wwn);
        return all;
    }

    /// A LUN's create and its delete; the record of the delete is the one that the create left.
    void AddLun(std::vector<Operation>& all, uint32_t type, const std::string& directory,
                const std::string& arguments) {
        const std::string luns = "targetcli /iscsi/iqn.Ab/tpg1/luns";
        const std::string text = "[0] Target iqn.Ab Lun 3 SerialNum " + serial +
                                 " Path /Path BStorType " + std::to_string(type);
        const bool user = type == BSTOR_USER;
        Operation create{
            [this, type](MoScsiSrvLIO& p) {
                lun = Lun(type);
                return p.CreateLun(&lun);
            },
            "CreateLun(MoScsiSrvLun_t*)",
            text,
            {{"targetcli /backstores/" + directory + " create " + arguments, {}},
             {luns + " create storage_object=/backstores/" + directory + "/" + name + " lun=3",
              {}}},
            {"+cfg"},
            {"-cfg", text}};
        Operation remove{[this, type, user](MoScsiSrvLIO& p) {
                             lun = Lun(type);
                             lun.serialNum = serial;
                             if (user) {  // known to the registry, from a create
                                 MoScsiSrvLun made = Lun(type);
                                 const int level = journal.GetDebugLevel();
                                 journal.Reset(-1);
                                 EXPECT_FALSE(p.CreateLun(&made).IsError());
                                 journal.Reset(level);
                             }
                             return p.DeleteLun(&lun);
                         },
                         "DeleteLun(MoScsiSrvLun_t*)",
                         text,
                         {{luns + " delete lun=3", {"Invalid LUN"}},
                          {"targetcli /backstores/" + directory + " delete name=" + name,
                           {"No storage object named"}}},
                         {"+cfg"},
                         {"-cfg", text}};
        if (user) {
            create.after = {"-cfg", "+map", "-map", text};
            remove.before = {"+map", "-map", "+cfg"};
            remove.after = {"-cfg", "+map", "-map", text};
        }
        all.push_back(create);
        all.push_back(remove);
    }

    /// What the operation does when its step `failing` fails with `error` logged (none: empty).
    static Strings Events(const Operation& operation, size_t failing, const std::string& error) {
        Strings events = operation.before;
        for (size_t i = 0; i < operation.steps.size() && i <= failing; ++i)
            events.push_back("$ " + Updating(operation.steps[i].command));
        if (!error.empty())
            events.push_back(error);
        const Strings rest = failing < operation.steps.size() ? Strings{"-cfg"} : operation.after;
        events.insert(events.end(), rest.begin(), rest.end());
        return events;
    }

    /// What targetcli was asked in this step, without the program's name.
    static std::string Arguments(const Step& step) {
        return Lower(step.command.substr(sizeof "targetcli"));
    }
};

TEST_F(PlatformOperationsTest, RunsItsStepsUnderTheLockAndConfirms) {
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.signature);
        targetcli.Reset();
        journal.Reset(5);
        EXPECT_FALSE(operation.run(Platform()).IsError());
        EXPECT_THAT(journal.Events(), ElementsAreArray(Events(operation, 99, "")));
        for (const CapturingLogWriter::Line& message : journal.Lines()) {
            EXPECT_EQ("[0] " + message.text, operation.confirmation);
            EXPECT_EQ(message.function, "virtual CRyError MoScsiSrvLIO::" + operation.signature);
        }
        // Below the level of confirmations there is none.
        journal.Reset(-1);
        EXPECT_FALSE(operation.run(Platform()).IsError());
        EXPECT_TRUE(journal.Lines().empty());
    }
}

TEST_F(PlatformOperationsTest, ToleratesWhatMeansThatItIsDoneAlready) {
    for (const Operation& operation : Operations()) {
        for (const Step& step : operation.steps) {
            Strings texts = step.tolerated;
            texts.insert(texts.end(), {"it exists", "Exists already"});
            for (const std::string& text : texts) {
                SCOPED_TRACE(step.command + ": " + text);
                targetcli.Reset();
                targetcli.Answer(Arguments(step), "x " + text + " y\\n");
                journal.Reset(5);
                EXPECT_FALSE(operation.run(Platform()).IsError());
                EXPECT_THAT(journal.Events(), ElementsAreArray(Events(operation, 99, "")));
            }
        }
    }
}

TEST_F(PlatformOperationsTest, StopsAtAStepThatFailsOrCannotStart) {
    for (const Operation& operation : Operations()) {
        for (size_t i = 0; i < operation.steps.size(); ++i) {
            const Step& step = operation.steps[i];
            SCOPED_TRACE(step.command);
            // All that others tolerate, and this step doesn't.
            std::string text = "bad";
            for (const std::string& other : kTolerated) {
                if (std::ranges::find(step.tolerated, other) == step.tolerated.end())
                    text += " " + other;
            }
            targetcli.Reset();
            targetcli.Answer(Arguments(step), text + "\\nexists on the second line\\n");
            journal.Reset(5);
            CRyError error = operation.run(Platform());
            const std::string message =
                "cmd " + Updating(step.command) + " failed. err " + text + "\n";
            EXPECT_EQ(error.Number(), 774);
            EXPECT_EQ(error.Message(), message);
            EXPECT_THAT(journal.Events(),
                        ElementsAreArray(Events(operation, i, "[-1] " + message)));

            targetcli.Reset();
            journal.Reset(5);
            const bool removesUserLun = operation.before.size() > 1;  // created on the way
            os_seams::FailAt(os_seams::kPopen, static_cast<int>(i) + (removesUserLun ? 3 : 1),
                             ENOMEM);
            error = operation.run(Platform());
            EXPECT_EQ(error.Number(), 774);
            EXPECT_EQ(error.Message(), "popen error cmd " + step.command + " failed");
            EXPECT_THAT(journal.Events(), ElementsAreArray(Events(operation, i, "")));
        }
    }
}

TEST_F(PlatformOperationsTest, TwoThreadsNeverMixTheirCommands) {
    std::vector<std::thread> threads;
    for (const char* initiator : {"iqn.a", "iqn.b"}) {
        threads.emplace_back([this, initiator] {
            MoScsiSrvHost mine{initiator};
            for (int i = 0; i < 5; ++i)
                EXPECT_FALSE(Platform().MapHost(&lun, &mine).IsError());
        });
    }
    for (std::thread& thread : threads)
        thread.join();

    const Strings calls = targetcli.Calls();
    ASSERT_EQ(calls.size(), 40U);
    for (size_t i = 0; i < calls.size(); i += 4) {
        const std::string initiator = calls[i].substr(calls[i].size() - 5);
        EXPECT_EQ("end" + calls[i].substr(5), calls[i + 1]);
        EXPECT_EQ("end" + calls[i + 2].substr(5), calls[i + 3]);
        EXPECT_THAT(calls[i + 2], testing::HasSubstr("acls/" + initiator + " create"));
    }
}
