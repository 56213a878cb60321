// What the host waits for on the bus, and what it says is lacking.

#include <gmock/gmock.h>

#include "adapters/runner/DbusService.h"
#include "host/BusWait.h"
#include "tests/support/PrivateBus.h"

using namespace moscsi::host;
using testing::HasSubstr;

namespace {

TEST(BusWaitTest, WantsBothObjectsAtFirstAndTheNameGoneAtLast) {
    const std::chrono::seconds atOnce{0};
    const auto lacking = [&] { return WaitForBusObjects(atOnce, [] { return false; }); };
    const PrivateBus bus;
    if (!bus.Running())
        GTEST_SKIP() << "dbus-daemon is not installed";
    DbusService service;
    ASSERT_TRUE(service.TakeName());
    EXPECT_FALSE(WaitForBusNameGone(atOnce));
    EXPECT_THAT(lacking(), HasSubstr("/MoScsiSrvTcmu is not there"));
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu"}));
    EXPECT_THAT(lacking(), HasSubstr("/moscsisrvtcmu is not there"));
    service.WithdrawHandlers();
    ASSERT_TRUE(service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"}));
    EXPECT_EQ(lacking(), "");
    service.GiveUpName();
    EXPECT_TRUE(WaitForBusNameGone(atOnce));
    int looks = 0;
    EXPECT_NE(WaitForBusObjects(std::chrono::hours(1), [&] { return ++looks == 2; }), "");
}

}  // namespace
