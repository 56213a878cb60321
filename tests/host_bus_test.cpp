// What the host waits for on the bus, and what it says is lacking.

#include <gmock/gmock.h>
#include <sys/wait.h>
#include <unistd.h>

#include "adapters/runner/DbusService.h"
#include "host/BusWait.h"
#include "tests/support/PrivateBus.h"

using moscsi::host::WaitForBusNameGone;
using moscsi::host::WaitForBusObjects;
using testing::HasSubstr;

namespace {

constexpr std::chrono::seconds kAtOnce{0};
constexpr std::chrono::seconds kDeadline{20};

std::string Lacking() {
    return WaitForBusObjects(kAtOnce, [] { return false; });
}

TEST(BusWaitTest, WantsBothObjectsOfItsOwnProcess) {
    PrivateBus bus;
    if (!bus.Running())
        GTEST_SKIP() << "dbus-daemon is not installed";
    EXPECT_THAT(Lacking(), testing::AnyOf(HasSubstr("nobody owns the D-Bus name"),
                                          HasSubstr("target_core_user is not loaded")));
    EXPECT_TRUE(WaitForBusNameGone(kAtOnce));

    int hold[2];
    ASSERT_EQ(pipe(hold), 0);
    const pid_t other = fork();
    if (other == 0) {  // has the name until this process closes the pipe
        close(hold[1]);
        DbusService service;
        char end = 0;
        const bool taken =
            service.TakeName() && service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"});
        _exit(taken && read(hold[0], &end, 1) == 0 ? 0 : 1);
    }
    close(hold[0]);
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (Lacking().find("is owned by host_bus_test (process " + std::to_string(other) + ")") ==
           std::string::npos)
        ASSERT_LT(std::chrono::steady_clock::now(), end) << Lacking();
    EXPECT_THAT(Lacking(), HasSubstr("stop that one"));
    EXPECT_TRUE(WaitForBusNameGone(kAtOnce)) << "it isn't ours";
    close(hold[1]);
    waitpid(other, nullptr, 0);

    DbusService service;
    ASSERT_TRUE(service.TakeName());
    EXPECT_FALSE(WaitForBusNameGone(kAtOnce));
    EXPECT_THAT(Lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu"}));
    EXPECT_THAT(Lacking(), HasSubstr("/moscsisrvtcmu is not there"));
    service.WithdrawHandlers();
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"}));
    EXPECT_EQ(WaitForBusObjects(kDeadline, [] { return false; }), "");
    service.GiveUpName();
    EXPECT_TRUE(WaitForBusNameGone(kAtOnce));
    int looks = 0;
    EXPECT_NE(WaitForBusObjects(std::chrono::hours(1), [&] { return ++looks == 2; }), "");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    EXPECT_THAT(Lacking(), HasSubstr("doesn't answer"));
}

}  // namespace
