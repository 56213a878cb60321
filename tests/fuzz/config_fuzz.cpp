// Any text as the host's configuration: a plan, or lines that say what is wrong; and what comes
// through may reach a shell.

#include "host/plan/Plan.h"
#include "tests/fuzz/Input.h"

/// A machine on which every path is a new file.
struct EmptyStorage : Storage {
    PathFacts LookAt(const std::string& path) const override {
        PathFacts facts;
        facts.identity = path;
        return facts;
    }
};

void CheckSafe(const std::string& text) {
    Check(text.find_first_of(" \t\n'\"`$;&|<>()*?[]{}!\\#~") == std::string::npos,
          "what comes through is safe in a shell");
    Check(text.size() < 256, "and fits configfs");
}

void Try(Input input) {
    Problems problems;
    const Config config = ParseConfig(input.Rest(), "fuzz.toml", problems);
    const Plan plan = MakePlan(config, 3260, EmptyStorage(), problems);
    for (const std::string& line : problems.Lines())
        Check(line.find('\n') == std::string::npos, "a problem is one line");
    if (!problems.Empty())
        return;
    for (const TargetPlan& target : plan.targets) {
        CheckSafe(target.name);
        for (const LunPlan& lun : target.luns) {
            for (const std::string& text : {lun.config.path, lun.serial, lun.object, lun.cfgString})
                CheckSafe(text);
            Check(lun.number.value_or(0) <= 255, "a LUN can be mapped");
            Check(lun.size % 512 == 0, "whole blocks");
        }
        for (const InitiatorPlan& initiator : target.initiators)
            CheckSafe(initiator.name);
    }
}
