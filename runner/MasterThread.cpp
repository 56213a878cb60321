#include "runner/MasterThread.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "framework/ExceptionOf.h"
#include "libtcmu/LibtcmuApi.h"
#include "util/Log.h"

namespace {

constexpr int kReceiveBytes = 4 * 1024 * 1024;  // some thousand events

}  // namespace

void MasterThread::Start() {
    const int masterFd = m_tcmu.MasterFd();
    // Beyond the system's limit when we may, up to it otherwise.
    const int* bytes = &kReceiveBytes;
    if (setsockopt(masterFd, SOL_SOCKET, SO_RCVBUFFORCE, bytes, sizeof *bytes) != 0 &&
        setsockopt(masterFd, SOL_SOCKET, SO_RCVBUF, bytes, sizeof *bytes) != 0)
        MO_LOG(kLogError, "TCMU runner: cannot enlarge libtcmu's receive buffer");
    m_thread.Start("moscsi-master", [this, masterFd] { Serve(masterFd); });
}

void MasterThread::Serve(int masterFd) {
    pollfd waits[] = {{masterFd, POLLIN, 0}, {m_thread.EndFd(), POLLIN, 0}};
    // Told to end, it still answers what has come: the kernel, and the user behind it, waits for
    // each answer. The descriptor for the end stays readable, so nothing is waited for then.
    bool more = true;
    while (more || !m_thread.Ending()) {
        more = poll(waits, 2, -1) > 0 && waits[0].revents != 0;
        if (!more)
            continue;
        int result = -ENOMEM;
        if (const auto fault = ExceptionOf([&] { result = m_tcmu.MasterFdReady(); }))
            MO_LOG(kLogError, "TCMU runner: %s", fault->c_str());
        if (result < 0)
            MO_LOG(kLogError, "TCMU runner: netlink error %d", result);
        more = result >= 0;
    }
}
