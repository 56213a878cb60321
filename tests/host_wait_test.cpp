// What the host doesn't wait for on the bus (runner_test.cpp has what it does), and how it waits
// for commands of an earlier one.

#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/un.h>

#include "host/BusWait.h"
#include "host/EarlierCommands.h"
#include "tests/support/TempDirectory.h"

using namespace moscsi::host;
using namespace testing;  // matchers

// The library alone would wait for its answer longer than the host may take to stop.
TEST(BusWaitTest, DoesNotWaitForABusThatAcceptsAndSaysNothing) {
    const TempDirectory directory;
    sockaddr_un address{AF_UNIX, {}};
    (directory.path / "bus").string().copy(address.sun_path, sizeof(address.sun_path) - 1);
    const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(listen(listener, 1), 0);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", (std::string("unix:path=") + address.sun_path).c_str(), 1);
    EXPECT_THAT(WaitForBusObjects(std::chrono::seconds(0), [] { return false; }),
                HasSubstr("says nothing"));
    close(listener);  // the thread that still waits ends with its connection
}

TEST(EarlierCommandsTest, AreFoundUntilTheyEnd) {
    const TempDirectory directory;
    const auto wrapper = directory.path / "targetcli";
    std::filesystem::copy_file("/bin/sleep", wrapper);
    FILE* command = popen(("exec " + wrapper.string() + " 1000").c_str(), "re");
    const auto stop = [] { return true; };
    pid_t running = 0;
    while ((running = EarlierCommand(wrapper)) == 0) {
    }
    EXPECT_EQ(WaitForEarlierCommands(wrapper, std::chrono::seconds(0), [] { return false; }),
              running);
    EXPECT_EQ(WaitForEarlierCommands(wrapper, std::chrono::hours(1), stop), running);
    kill(running, SIGKILL);
    EXPECT_EQ(WaitForEarlierCommands(wrapper, std::chrono::hours(1), [] { return false; }), 0);
    pclose(command);
}
