#include <fcntl.h>

#include <csignal>

#include "tools/targetcli/Interrupts.h"
#include "tools/targetcli/Wrapper.h"

int main(int argc, char** argv) {
    // A pipe must never be given the number of a standard stream that the caller closed.
    for (int fd = 0; fd <= 2; ++fd)
        if (fcntl(fd, F_GETFD) < 0)
            open("/dev/null", O_RDWR);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_DFL);
    const Interrupts interrupts;
    return RunWrapper({argv + 1, argv + argc}, interrupts);
}
