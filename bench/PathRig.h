#pragma once

#include <poll.h>

#include <atomic>
#include <condition_variable>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/LunData.h"
#include "libtcmu/Device.h"
#include "runner/CommandGate.h"
#include "runner/DeviceHandler.h"
#include "tests/support/KernelRing.h"

/// How far a command goes on its way; each stage has all of those before it.
enum class Stage {
    Ring,        ///< fetched and answered
    Gate,        ///< judged by the gate; its handler answers
    Handler,     ///< through the plug-in's handler to a host that answers at once, without data
    OtherHost,   ///< the same, but the host answers on a thread of its own
    Memory,      ///< moscsi-host's engines
    Uring,       ///< a file on tmpfs, where a sync costs nothing
    FileThreads  ///< the same file, without io_uring
};

/// The data path of one LUN over the model of the kernel's side. Thread: one.
class PathRig {
  public:
    static constexpr size_t kTransfer = 4096;
    static constexpr size_t kMost = 4096;  ///< commands in flight

    /// Throws std::runtime_error when the stage can't be had here, a file without io_uring for one.
    explicit PathRig(Stage stage);
    ~PathRig();
    PathRig(const PathRig&) = delete;

    /// The kernel's half: puts commands into the ring, and takes the answers to all out again.
    void Put(size_t count, bool write);
    void Reap();

    /// Ours: the device's thread goes once over what is in the ring.
    void Drain();
    /// Waits until all is answered, by whatever thread.
    void Await();
    uint64_t Doorbells() const { return m_device.ring.GetStats().doorbells; }

  private:
    struct Lib;
    struct AtOnce;
    struct GateOnly;

    void OpenPlugin(MoScsiBStorOps* host);

    KernelRing m_kernel{1 << 20, kMost* kTransfer};
    const std::unique_ptr<Lib> m_lib;
    tcmu_device m_device;
    std::unique_ptr<MoScsiBStorOps> m_host;
    std::unique_ptr<DeviceHandler> m_handler;
    std::unique_ptr<CommandGate> m_gate;
    bool m_opened = false;
};
