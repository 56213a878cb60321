// Every operation that targetcli carries out: its commands in order, the lock around them, what it
// confirms, how a command's output is judged, and what a step that fails leads to.

#include <sys/stat.h>

#include "tests/support/PlatformFixture.h"

namespace {

struct Step {
    std::string command;
    std::vector<std::string> tolerated = {};  // beside "exists" and "Exists"

    /// What targetcli is asked, without the program's name.
    std::string Arguments() const {
        return MoScsiSrvLIOTest::Lower(command.substr(sizeof "targetcli"));
    }
};

struct Operation {
    std::string signature;
    std::function<CRyError()> run;
    std::vector<Step> steps;
    std::vector<std::string> after;  // events that follow the commands when all went well
};

/// Everything that some step tolerates, and what looks like it.
const std::string kTolerated =
    "No such Target in configfs Created Node ACL Created Mapped LUN doesn't exist! Invalid LUN No "
    "such MappedLUN in configfs No storage object named no such target in configFS EXISTS";

}  // namespace

struct PlatformOperationsTest : MoScsiSrvLIOTest {
    MoScsiSrvLun lun = Lun(BSTOR_FILE);

    PlatformOperationsTest() {
        // What a create finds is what the kind of LUN wants. What a delete would find has died.
        g_os.onStat = [this](const std::string& path, mode_t& mode) {
            EXPECT_EQ(path, "/Path");
            mode = (lun.bstorType == BSTOR_FILE ? S_IFREG : S_IFBLK) | 0644;
            return lun.lunNum == 3 ? 0 : EIO;
        };
    }

    std::vector<Operation> Operations() {
        const std::string target = "targetcli /iscsi/iqn.Ab/tpg1/";
        const Strings targetDone = {"[0] Target iqn.Ab", "-cfg"};
        const Strings mappingDone = {"[0] Target iqn.Ab Lun 3 Host iqn.Host", "-cfg"};
        std::vector<Operation> all = {
            {"CreateTarget(MoScsiSrvTarget_t*)",
             [this] { return Platform().CreateTarget(&this->target); },
             {{"targetcli /iscsi create iqn.Ab"}},
             targetDone},
            {"DeleteTarget(MoScsiSrvTarget_t*)",
             [this] { return Platform().DeleteTarget(&this->target); },
             {{"targetcli /iscsi delete iqn.Ab", {"No such Target in configfs"}}},
             targetDone},
            {"MapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)",
             [this] { return Platform().MapHost(&lun, &initiator); },
             {{target + "acls create add_mapped_luns=false wwn=iqn.Host", {"Created Node ACL"}},
              {target + "acls/iqn.Host create tpg_lun_or_backstore=3 mapped_lun=3",
               {"Created Mapped LUN"}}},
             mappingDone},
            {"UnMapHost(MoScsiSrvLun_t*, MoScsiSrvHost_t*)",
             [this] { return Platform().UnMapHost(&lun, &initiator); },
             {{target + "acls/iqn.Host delete mapped_lun=3",
               {"No such MappedLUN in configfs", "doesn't exist!"}}},
             mappingDone}};
        const std::string name = Guid("MoScsiSrv-iqn.Ab-/Path").substr(0, 15);
        const std::string guid = Guid("iqn.Ab/Path");
        const std::tuple<uint32_t, std::string, std::string, std::string> kinds[] = {
            {BSTOR_FILE, "fileio", "file_or_dev=/Path", ""},
            {BSTOR_BLKDEV, "block", "dev=/Path", ""},
            {BSTOR_BLKDEV2, "block", "dev=/Path", ""},
            {BSTOR_USER, "user:MoScsiSrvTcmu", "cfgstring=" + guid, " size=8589934592"},
        };
        for (const auto& [type, directory, source, extra] : kinds) {
            const std::string backstore = "/backstores/" + directory;
            const auto after = [&, type = type](const std::string& numberAndSerial) {
                const bool user = type == BSTOR_USER;
                return (user ? Strings{"-cfg", "+map", "-map"} : Strings{"-cfg"}) +
                       Strings{"[0] Target iqn.Ab Lun " + numberAndSerial +
                               " Path /Path BStorType " + std::to_string(type)};
            };
            const auto create = [this, type = type] {
                lun = Lun(type);
                return Platform().CreateLun(&lun);
            };
            const auto remove = [this, type = type] {  // nothing is wrong with any number
                lun = Lun(type, 70000);
                Registry()[CfgString(lun)];
                return Platform().DeleteLun(&lun);
            };
            all.push_back(
                {"CreateLun(MoScsiSrvLun_t*)",
                 create,
                 {{"targetcli " + backstore + " create " + source + " name=" + name + extra +
                   " wwn=Ser-" + guid},
                  {target + "luns create storage_object=" + backstore + "/" + name + " lun=3"}},
                 after("3 SerialNum Ser-" + guid)});
            all.push_back(
                {"DeleteLun(MoScsiSrvLun_t*)",
                 remove,
                 {{target + "luns delete lun=70000", {"Invalid LUN"}},
                  {"targetcli " + backstore + " delete name=" + name, {"No storage object named"}}},
                 after("70000 SerialNum Ser")});
        }
        return all;
    }

    /// Runs the operation. Expects that all its steps succeed, or that `failing` does with this
    /// message, which is logged unless the command couldn't be started.
    void Check(const Operation& operation, const Step* failing = nullptr,
               const std::string& message = "") {
        journal.Reset(5);
        const CRyError error = operation.run();
        Strings events = journal.Events();
        events.erase(events.begin(), std::ranges::find(events, "+cfg"));  // a look at the registry
        Strings expected{"+cfg"};
        for (const Step& step : operation.steps) {
            expected.push_back("$ " + Updating(step.command));
            if (&step == failing)
                break;
        }
        if (message.starts_with("cmd"))
            expected.push_back("[-1] " + message);
        EXPECT_EQ(events, expected + (failing != nullptr ? Strings({"-cfg"}) : operation.after));
        EXPECT_EQ(error.Message(), message);
        EXPECT_EQ(error.Number(), failing != nullptr ? 774 : 0);
    }
};

TEST_F(PlatformOperationsTest, RunsItsStepsConfirmsAndStopsWhereOneFailsOrCannotStart) {
    for (const Operation& operation : Operations()) {
        SCOPED_TRACE(operation.signature);
        Check(operation);
        EXPECT_THAT(journal.Functions(),
                    ElementsAre("virtual CRyError MoScsiSrvLIO::" + operation.signature));
        journal.Reset(-1);  // below the level of confirmations
        EXPECT_FALSE(operation.run().IsError());
        EXPECT_EQ(journal.Functions(), Strings());
        for (const Step& step : operation.steps) {
            std::string text = "bad " + kTolerated;  // without what this step does tolerate
            for (const auto& fine : Strings({"it exists", "Exists already"}) + step.tolerated) {
                SCOPED_TRACE(step.command + ": " + fine);
                Answer(step.Arguments(), "x " + fine + " y\\n");
                Check(operation);
                if (const size_t at = text.find(fine); at != std::string::npos)
                    text.erase(at, fine.size());
            }
            SCOPED_TRACE(step.command);
            Answer(step.Arguments(), text + "\\nexists on the second line\\n");
            Check(operation, &step,
                  "cmd " + Updating(step.command) + " failed. err " + text + "\n");
            g_os.fail[OsSeams::kPopen] = {static_cast<int>(&step - &operation.steps[0]) + 1,
                                          ENOMEM};
            Check(operation, &step, "popen error cmd " + step.command + " failed");
        }
    }
}

TEST_F(PlatformOperationsTest, FirstLineOfStandardErrorIsJudgedAndNothingElse) {
    const Operation create = Operations().front();
    const Step& step = create.steps[0];
    const std::string longText(4089, 'a');
    // Standard output and error, and what the message shows of an error.
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {"an error\\n", "", ""},  // and a bad status
        {"", "no line feed", "no line feed"},
        {"", "\\nexists\\n", "\n"},
        {"", longText + "existsmore\\n", ""},  // at the end of the line's limit, and beyond
        {"", longText + "bexists\\n", longText + "bexist"},
        {"", "", ""}};  // nothing of a long answer is left for the next command
    for (const auto& [out, err, seen] : cases) {
        SCOPED_TRACE(err);
        Answer(step.Arguments(), err, out);
        if (seen.empty())
            Check(create);
        else
            Check(create, &step, "cmd " + Updating(step.command) + " failed. err " + seen);
    }
}
