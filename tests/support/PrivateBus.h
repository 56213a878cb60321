#pragma once

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>

#include <cstdlib>
#include <string>

/// A message bus of the test's own, which the process takes for the system bus.
class PrivateBus {
  public:
    PrivateBus() {
        int out[2];
        if (pipe2(out, O_CLOEXEC) != 0)
            return;
        m_process = fork();
        if (m_process == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            dup2(out[1], STDOUT_FILENO);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile",
                   "--print-address=1", nullptr);
            _exit(127);
        }
        close(out[1]);
        char c = 0;
        while (read(out[0], &c, 1) == 1 && c != '\n')
            m_address += c;
        close(out[0]);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.c_str(), 1);
    }
    ~PrivateBus() {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

    /// False when dbus-daemon isn't installed.
    bool Running() const { return !m_address.empty(); }

  private:
    pid_t m_process = -1;
    std::string m_address;
};
