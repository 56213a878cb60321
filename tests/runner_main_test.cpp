#include <gtest/gtest.h>

#include <cstdlib>

#include "adapters/runner/tcmu_runner.h"
#include "tests/support/CapturingLogWriter.h"

namespace {

TEST(TcmuRunnerMainTest, RefusesOtherArgumentsAndGoesOnWithItsOwn) {
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    char program[] = "tcmu_runner_main";
    char path[] = "--handler-path=";
    char other[] = "--other=x";
    struct Call {
        int argc;
        char* argv[4];
        const char* line;
    };
    const Call calls[] = {
        {2, {program, path, nullptr}, "no system D-Bus"},
        {2, {program, other, nullptr}, "--handler-path=PATH"},
        {1, {program, nullptr}, "--handler-path=PATH"},
    };
    for (const Call& call : calls) {
        CapturingLogWriter::Installed().Reset(0);
        EXPECT_EQ(tcmu_runner_main(call.argc, const_cast<char**>(call.argv)), 1);
        const auto errors = CapturingLogWriter::Installed().Texts(-1);
        ASSERT_EQ(errors.size(), 1U);
        EXPECT_NE(errors[0].find(call.line), std::string::npos) << errors[0];
    }
}

}  // namespace
