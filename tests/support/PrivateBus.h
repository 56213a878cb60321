#pragma once

#include <csignal>
#include <cstdio>
#include <cstdlib>

/// A message bus of the test's own, which the process takes for the system bus.
struct PrivateBus {
    PrivateBus()
        : m_output(popen("exec setpriv --pdeathsig KILL dbus-daemon --session --nofork "
                         "--nopidfile --print-address=1 --print-pid=1 2>/dev/null",
                         "re")) {
        char address[256];
        if (fscanf(m_output, "%255s %d", address, &m_process) == 2)
            setenv("DBUS_SYSTEM_BUS_ADDRESS", address, 1);
    }
    ~PrivateBus() {
        if (Running())
            kill(m_process, SIGKILL);
        pclose(m_output);
    }
    PrivateBus(const PrivateBus&) = delete;

    /// False when dbus-daemon isn't installed.
    bool Running() const { return m_process > 0; }

  private:
    FILE* m_output;
    pid_t m_process = -1;
};
