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
constexpr std::chrono::seconds kDeadline{20};

std::string Lacking() {
    return WaitForBusObjects(kAtOnce, [] { return false; });
}

/// The name in another process, until this one lets go of it.
class OtherDaemon {
  public:
    OtherDaemon() {
        int toUs[2];
        int toChild[2];
        if (pipe(toUs) != 0 || pipe(toChild) != 0)
            return;
        m_process = fork();
        char c = 0;
        if (m_process == 0) {
            close(toChild[1]);
            DbusService service;
            bool taken =
                service.TakeName() && service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"});
            if (taken && write(toUs[1], "x", 1) == 1)
                taken = read(toChild[0], &c, 1) == 0;
            _exit(0);
        }
        close(toUs[1]);
        close(toChild[0]);
        m_hold = toChild[1];
        m_running = read(toUs[0], &c, 1) == 1;
        close(toUs[0]);
    }
    ~OtherDaemon() {
        close(m_hold);
        waitpid(m_process, nullptr, 0);
    }
    OtherDaemon(const OtherDaemon&) = delete;
    OtherDaemon& operator=(const OtherDaemon&) = delete;

    pid_t Process() const { return m_running ? m_process : -1; }

  private:
    pid_t m_process = -1;
    int m_hold = -1;
    bool m_running = false;
};

TEST(BusWaitTest, WantsBothObjectsOfItsOwnProcess) {
    PrivateBus bus;
    if (!bus.Running())
        GTEST_SKIP() << "dbus-daemon is not installed";
    EXPECT_THAT(Lacking(), testing::AnyOf(HasSubstr("nobody owns the D-Bus name"),
                                          HasSubstr("target_core_user is not loaded")));
    EXPECT_TRUE(WaitForBusNameGone(kAtOnce));
    {
        const OtherDaemon other;
        EXPECT_THAT(Lacking(), testing::AllOf(HasSubstr("is owned by host_bus_test (process " +
                                                        std::to_string(other.Process()) + ")"),
                                              HasSubstr("stop that one")));
        EXPECT_TRUE(WaitForBusNameGone(kAtOnce)) << "it isn't ours";
    }
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
