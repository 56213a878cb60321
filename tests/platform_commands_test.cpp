// The command runner: what it gives to the shell, and how it judges what comes back.

#include <optional>

#include "tests/support/PlatformFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

struct PlatformCommandsTest : MoScsiSrvLIOTest {};

TEST_F(PlatformCommandsTest, UpdateJudgesTheFirstLineOfStandardErrorOnly) {
    const std::string longText(4089, 'a');
    const std::string beyond = longText + "b";
    const struct {
        const char* what;
        std::string out;
        std::string err;
        std::optional<std::string> seen;  // of the error, in the message; none: success
    } cases[] = {
        {"nothing at all", "", "", {}},
        {"standard output and a bad status", "an error\\n", "", {}},
        {"no line feed", "", "bad", "bad"},
        {"an empty line", "", "\\nexists\\n", "\n"},
        {"a second line", "", "bad\\nfine\\n", "bad\n"},
        {"a tolerated text", "", "really fine here\\n", {}},
        {"a tolerated text in other letters", "", "FINE\\n", "FINE\n"},
        {"text at the end of the line's limit", "", longText + "existsmore\\n", {}},
        {"text beyond the line's limit", "", beyond + "exists\\n", beyond + "exist"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        targetcli.Reset();
        targetcli.Answer("x", c.err, c.out);
        journal.Reset(5);
        const CRyError error = Update("TargetCLI X", {"no match", "fine"});
        if (!c.seen.has_value()) {
            EXPECT_FALSE(error.IsError());
            EXPECT_THAT(Errors(), IsEmpty());
            continue;
        }
        const std::string message =
            "cmd targetcli x 2> /dev/stdout 1> /dev/null failed. err " + *c.seen;
        EXPECT_EQ(error.Number(), 774);
        EXPECT_EQ(error.Message(), message);
        EXPECT_THAT(Errors(), ElementsAre(message));
    }
    // Nothing of a long answer is left for the next command.
    EXPECT_FALSE(Update("true", {}).IsError());
}

TEST_F(PlatformCommandsTest, ReadGivesTheFirstLineOfStandardOutput) {
    const struct {
        std::string out;
        std::string err;
        std::string read;
    } cases[] = {{"3\\nmore\\n", "exists\\n", "3\n"},
                 {"", "error\\n", ""},
                 {std::string(5000, 'b'), "", std::string(4095, 'b')}};
    for (const auto& c : cases) {
        targetcli.Reset();
        targetcli.Answer("x", c.err, c.out);
        journal.Reset(5);
        std::string out = "old";
        EXPECT_FALSE(Read("TargetCLI X", out).IsError());
        EXPECT_EQ(out, c.read);
        EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "$ targetcli x",
                                                  "[2] TargetCliReadObject: " + c.read, "-cfg"));
    }
}

TEST_F(PlatformCommandsTest, SystemRunsTheCommandAsItIsAndJudgesItsStatus) {
    EXPECT_FALSE(System("test X != x; true").IsError());
    for (const char* command : {"exit 3 # Upper", "kill -9 $$"}) {
        journal.Reset(5);
        const CRyError error = System(command);
        EXPECT_EQ(error.Number(), 774);
        EXPECT_EQ(error.Message(), std::string("cmd: ") + command + " failed");
        EXPECT_THAT(journal.Events(),
                    ElementsAre(std::string("$ ") + command, "[-1] " + error.Message()));
    }
}
