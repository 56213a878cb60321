// What the configuration file is refused for (host_serve_test.py has what a good one comes to).

#include "tests/support/PlanFixture.h"

using HostConfigTest = PlanTest;

TEST_F(HostConfigTest, EachFaultIsOneLineWithItsPlace) {
    Make("empty.img", 0);
    Make("odd.img", 1000);
    for (const char* name : {"Upper", "rofs", "fixed", "bad", "loop", "swap", "open"})
        Make(name + std::string(".img"), 512);
    const std::ofstream writer(dir / "open.img", std::ios::app);
    fs::create_hard_link(dir / "good.img", dir / "link.img");
    const auto file = [](const std::string& keys) { return kTarget + LunText("file", keys); };
    const auto block = [](const std::string& keys) { return kTarget + LunText("block", keys); };
    const auto faultPlan = [](const std::string& keys) {
        return kTarget + Memory("size=512\n[target.lun.faults]\n" + keys);
    };
    const auto rule = [&](const std::string& keys) {
        return faultPlan("[[target.lun.faults.rule]]\n" + keys);
    };
    const std::string good = file("path='@/good.img'");
    const std::string hex25 = "serial_prefix='" + std::string(25, 'a') + "'";

    // A text, where its fault's line must point, and what it must say.
    const std::tuple<std::string, int, const char*> faults[] = {
        {"[service]\nlog_level = 7\n" + good, 2, "log_level is from -1"},
        {"[service]\nlog = 'file'\n" + good, 2, "log is"},
        {kTarget + LunText("tape", ""), 5, "none of \"file\", \"block\", \"user\""},
        {kTarget + LunText("", "path='@/good.img'"), 5, "type = \"\" is none of"},
        {kTarget + LunText("user", "backing='tape'\nsize=512"), 6,
         "neither \"memory\" nor \"file\""},
        {file("path='@/good.img'\nsiez = 4"), 7, "knows no key \"siez\""},
        {file("path='@/new.img'\nsize='4 MB'"), 7, "such as \"64MiB\""},
        {file("path='@/new.img'\nsize=512\nprovisioning='thin'"), 8,
         "neither \"full\" nor \"sparse\""},
        {kTarget + LunText("user", "backing='file'\nengine='aio'"), 7,
         "none of \"auto\", \"io_uring\", \"threads\""},
        {kTarget + Memory("size=512\nengine='auto'"), 8, "knows no key \"engine\""},
        {file("path='@/good.img'\nengine='auto'"), 7, "knows no key \"engine\""},
        {kTarget + Memory("size=512\nprovisioning='full'"), 8, "knows no key \"provisioning\""},
        {file("path='@/new.img'\nsize=1000"), 7, "multiple of 512"},
        {file("path='@/new.img'\nsize=0"), 7, "multiple of 512"},
        {file("path='@/empty.img'"), 6, "is 0 bytes long"},
        {file("path='@/odd.img'"), 6, "is 1000 bytes long"},
        {file("path='@/good.img'\nsize=512"), 7, "is 1024 bytes long"},
        {file("path='@/Upper.img'"), 6, "upper-case"},
        {file("path='@/rofs.img'"), 6, "mounted read-only"},
        {file("path='@/fixed.img'"), 6, "chattr -i"},
        {file("path='@/bad.img'"), 6, "opened for writing (Input/output error)"},
        {file("path='@/loop.img'"), 6, "is behind the loop device 7:4"},
        {file("path='@/swap.img'"), 6, "is swap space"},
        {LunText("user", "backing='file'\npath='@/open.img'").insert(0, kTarget), 7,
         "is open for writing by process "},
        {file("path='good.img'\nsize=512"), 6, "no absolute path"},
        {good + LunText("file", "path='@/link.img'", "b"), 10, "used by two LUNs"},
        {file("path='@/new.img'\nsize=512") + LunText("file", "path='@/./new.img'\nsize=512", "b"),
         11, "used by two LUNs"},
        {block("path='/dev/missing'"), 6, "isn't there"},
        {block("path='@/good.img'"), 6, "no block device"},
        {block("path='/dev/loop0'\nsize=512"), 7, "has 4096 bytes"},
        {block("path='/dev/loop1'"), 6, "is read-only"},
        {block("path='/dev/loop2'"), 6, "is mounted on /srv/data"},
        {block("path='/dev/loop3'"), 6, "is part of dm-0"},
        {kTarget + Memory(""), 3, "needs size"},
        {kTarget + Memory("size='3TiB'"), 7, "more than 2 TiB"},
        {kTarget + Memory("size='1900GiB'") + Memory("size='1950GiB'", "b") +
             Memory("size=512", "c"),
         12, "come to 3850 GiB, and this machine can give 3906250 MiB"},
        {kTarget + Memory("size=512\npath='/m'") + Memory("size=512\npath='/m'", "b"), 14,
         "would be one object"},
        {kTarget + Memory("size=512\nnumber=4") + Memory("size=512\nnumber=4", "b"), 14,
         "LUN number 4 stands in line 8"},
        {good + Memory("size=512"), 8, "the LUN name \"a\" stands in line 4"},
        {file("path='@/good.img'\nserial_prefix='" + std::string(65, 'x') + "'"), 7,
         "is 65 characters long"},
        {file("path='@/good.img'\nserial_prefix='Disk'"), 7, "upper-case"},
        {file("path='@/good.img'\n" + hex25) + Memory("size=512\n" + hex25, "b"), 13,
         "first 25 hexadecimal digits"},
        {faultPlan("sed=1"), 9, "[target.lun.faults] knows no key \"sed\""},
        {faultPlan("seed=-1"), 9, "seed must be a whole number from 0 to"},
        {faultPlan("durable=1"), 9, "true or false"},
        {faultPlan("rule=3"), 9, "in double brackets"},
        {faultPlan("rule=[3]"), 9, "[[target.lun.faults.rule]] must be a table"},
        {rule("kind='error'\nerno=5"), 11, "[[target.lun.faults.rule]] knows no key \"erno\""},
        {rule("on='read'"), 9, "has no kind"},
        {rule("kind='eror'"), 10, "none of \"error\", \"short\", \"delay\", \"hold\""},
        {rule("kind=3"), 10, "kind must be a text in quotes"},
        {rule("kind='short'"), 9, "needs bytes"},
        {rule("kind='delay'"), 9, "needs delay_ms"},
        {rule("kind='hold'"), 9, "needs while_file"},
        {rule("kind='delay'\ndelay_ms=0"), 11, "from 1 to 3600000"},
        {rule("kind='error'\nerrno=4096"), 11, "from 1 to 4095"},
        {rule("kind='error'\nafter='x'"), 11, "after must be a whole number"},
        {rule("kind='error'\nbytes=1"), 11, "belongs to kind = \"short\", not \"error\""},
        {rule("kind='error'\nrate=0"), 11, "above 0"},
        {rule("kind='error'\nrate=1.5"), 11, "up to 1"},
        {rule("kind='error'\non='both'"), 11, "none of \"read\", \"write\", \"any\""},
        {rule("kind='error'\nwhile_file='x'"), 11, "absolute path"},
        {"[[target]]\nname=''\n", 2, "name is empty"},
        {good + LunText("file", "path='@/new.img'\nsize=512", ""), 8, "name is empty"},
        {good + Initiator("", "['a']"), 8, "name is empty"},
        {good + "size=1024\nsize=1024\n", 8, "has \"size\" a second time: leave one"},
        {good + "size=\n", 7, "is not TOML: missing value"},
        {"[[target]]\nname='h\xE9'\n", 2, "isn't UTF-8"},
        {"[[target]]\nname='iqn.2026-01.com.Example:t'\n", 2, "upper-case"},
        {"[[target]]\nname='iqn.2026-13.com.example:t'\n", 2, "no iSCSI qualified name"},
        {"[[target]]\nname='iqn.2026-01.com.example:" + std::string(200, 't') + "'\n", 2,
         "at most 223"},
        {good + Initiator(kHost, "['a']") + Initiator(kHost, "['a']"), 11, "merge the two"},
        {good + Initiator(kHost, "['b']"), 9, "no LUN of that name"},
        {good + Initiator(kHost, "['a', 'a']"), 9, "names a LUN twice"},
        {good + Initiator(kHost, "'a'"), 9, "an array of LUN names"},
        {good + Initiator("host", "'all'"), 8, "no iSCSI qualified name"},
    };
    for (const auto& [text, line, phrase] : faults) {
        PlanOf(text);
        const std::string place = "f.toml:" + std::to_string(line) + ":";
        EXPECT_THAT(problems.Lines(),
                    ElementsAre(AllOf(StartsWith(place), HasSubstr(phrase), Not(HasSubstr("\n")))))
            << text;
    }
    PlanOf(kTarget + Memory("size='1900GiB'") + Memory("size='1800GiB'", "b"));
    EXPECT_THAT(problems.Lines(), ElementsAre()) << "what a host holds already doesn't count";
    PlanOf(file("path='@/new.img'\nsize=1\nnumber=300") + Memory("size=1", "b"));
    EXPECT_EQ(problems.Lines().size(), 3U) << "all at once";
    PlanOf(faultPlan("durable=1\n[[target.lun.faults.rule]]\nkind='short'\nerrno=0\nrate=2"));
    EXPECT_EQ(problems.Lines().size(), 5U) << "all at once";
}

TEST_F(HostConfigTest, FaultPlanIsWhatTheFileSays) {
    const Plan plan = PlanOf(kTarget + Memory("size=512") +
                             Memory(R"(size=512
[target.lun.faults]
seed=7
durable=false
rule=[{kind='error'},
      {kind='short', on='read', after=1, count=2, rate=0.5, bytes=3},
      {kind='delay', on='write', rate=1, delay_ms=4},
      {kind='hold', on='any', while_file='/f'},
      {kind='error', errno=28, while_file='/g'}])",
                                    "b"));
    ASSERT_THAT(problems.Lines(), ElementsAre());
    const auto& luns = plan.targets.at(0).luns;
    EXPECT_TRUE(luns.at(0).config.faults.durable);
    const FaultPlan& faults = luns.at(1).config.faults;
    EXPECT_FALSE(faults.durable);
    EXPECT_EQ(faults.seed, 7U);
    const auto fields = [](const FaultRule& rule) {
        return std::tuple(rule.kind, rule.onRead, rule.onWrite, rule.after, rule.count, rule.rate,
                          rule.whileFile, rule.errorNumber, rule.bytes, rule.delayMs);
    };
    const std::vector<FaultRule> expected{
        {.kind = FaultKind::Error, .errorNumber = EIO},
        {.kind = FaultKind::Short,
         .onWrite = false,
         .after = 1,
         .count = 2,
         .rate = 0.5,
         .bytes = 3},
        {.kind = FaultKind::Delay, .onRead = false, .delayMs = 4},
        {.kind = FaultKind::Hold, .whileFile = "/f"},
        {.kind = FaultKind::Error, .whileFile = "/g", .errorNumber = ENOSPC},
    };
    ASSERT_EQ(faults.rules.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_EQ(fields(faults.rules[i]), fields(expected[i])) << i;
}
