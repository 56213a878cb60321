// What the host waits for on the bus, and what it says is lacking.

#include <gmock/gmock.h>

#include "adapters/runner/DbusService.h"
#include "host/BusWait.h"
#include "tests/support/PrivateBus.h"

using moscsi::host::WaitForBusNameGone;
using moscsi::host::WaitForBusObjects;
using testing::HasSubstr;

namespace {

constexpr std::chrono::seconds kAtOnce{0};

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

    DbusService service;
    ASSERT_TRUE(service.TakeName());
    EXPECT_FALSE(WaitForBusNameGone(kAtOnce));
    EXPECT_THAT(Lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu"}));
    EXPECT_THAT(Lacking(), HasSubstr("/moscsisrvtcmu is not there"));
    service.WithdrawHandlers();
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"}));
    EXPECT_EQ(WaitForBusObjects(std::chrono::seconds(20), [] { return false; }), "");
    service.GiveUpName();
    EXPECT_TRUE(WaitForBusNameGone(kAtOnce));
    int looks = 0;
    EXPECT_NE(WaitForBusObjects(std::chrono::hours(1), [&] { return ++looks == 2; }), "");
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nowhere", 1);
    EXPECT_THAT(Lacking(), HasSubstr("doesn't answer"));
}

}  // namespace
