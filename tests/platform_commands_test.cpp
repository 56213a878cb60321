// The command runner: what it gives to the shell, and how it judges what comes back.

#include "tests/support/PlatformFixture.h"

using PlatformCommandsTest = MoScsiSrvLIOTest;

TEST_F(PlatformCommandsTest, UpdateJudgesTheFirstLineOfStandardErrorOnly) {
    const std::string longText(4089, 'a');
    const char* const success = "";
    // What it is, standard output and error, and what is seen of the error in the message.
    const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
        {"standard output and a bad status", "an error\\n", "", success},
        {"no line feed", "", "bad", "bad"},
        {"an empty line", "", "\\nexists\\n", "\n"},
        {"text at the end of the line's limit", "", longText + "existsmore\\n", success},
        {"text beyond the line's limit", "", longText + "bexists\\n", longText + "bexist"},
    };
    for (const auto& [what, out, err, seen] : cases) {
        SCOPED_TRACE(what);
        Answer("x", err, out);
        journal.Reset(5);
        const CRyError error = Update("TargetCLI X", {});
        Strings expected{"+cfg", "$ targetcli x 2> /dev/stdout 1> /dev/null", "-cfg"};
        EXPECT_EQ(error.IsError(), seen != success);
        if (seen != success) {
            ExpectError(error, 774, "cmd " + expected[1].substr(2) + " failed. err " + seen);
            expected.insert(expected.end() - 1, "[-1] " + error.Message());
        }
        EXPECT_EQ(journal.Events(), expected);
    }
    // Nothing of a long answer is left for the next command.
    EXPECT_FALSE(Update("true", {}).IsError());
}

TEST_F(PlatformCommandsTest, ReadGivesTheFirstLineOfStandardOutput) {
    const Strings cases[] = {{"3\\nmore\\n", "exists\\n", "3\n"},
                             {"", "error\\n", ""},
                             {std::string(5000, 'b'), "", std::string(4095, 'b')}};
    for (const auto& c : cases) {
        Answer("x", c[1], c[0]);
        journal.Reset(5);
        std::string out = "old";
        EXPECT_FALSE(Read("TargetCLI X", out).IsError());
        EXPECT_EQ(out, c[2]);
        EXPECT_THAT(journal.Events(), ElementsAre("+cfg", "$ targetcli x",
                                                  "[2] TargetCliReadObject: " + c[2], "-cfg"));
    }
}

TEST_F(PlatformCommandsTest, SystemRunsTheCommandAsItIsAndJudgesItsStatus) {
    EXPECT_FALSE(System("test X != x; true").IsError());
    for (const std::string command : {"exit 3 # Upper", "kill -9 $$"}) {
        journal.Reset(5);
        const CRyError error = System(command);
        ExpectError(error, 774, "cmd: " + command + " failed");
        EXPECT_THAT(journal.Events(), ElementsAre("$ " + command, "[-1] " + error.Message()));
    }
}
