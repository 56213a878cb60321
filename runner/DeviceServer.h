#pragma once

#include <atomic>
#include <filesystem>
#include <memory>
#include <string>

#include "framework/MoStatistics.h"
#include "libtcmu/Device.h"
#include "runner/CommandGate.h"
#include "runner/RunnerEnvironment.h"
#include "runner/ServiceThread.h"

/// Serves one TCMU device: its record, handler, gate, and the thread that takes commands from the
/// ring.
///
/// Life: constructed -> Open (handler open, thread started) -> EndThread -> Close -> destroyed. A
/// device that the host still holds commands of must not be destroyed: their buffers are the
/// ring's.
///
/// An exception that comes out of handler or host on the thread costs the LUN: what threw may hold
/// a lock, so the handler is given no command any more, and each is answered NOT READY.
///
/// Thread: Open, EndThread, EndThreadBy and Close on one at a time; the rest on any.
class DeviceServer {
  public:
    DeviceServer(const RunnerEnvironment& environment, LibDevice* device);
    ~DeviceServer();

    DeviceServer(const DeviceServer&) = delete;
    DeviceServer& operator=(const DeviceServer&) = delete;

    /// Opens the handler and starts to serve.
    /// Returns: 0, or the handler's negative errno. Errors: std::system_error without a thread.
    int Open();

    /// Ends the thread, which takes no more commands. It comes before Close.
    void EndThread() { m_thread.End(); }
    bool EndThreadBy(ServiceThread::Clock::time_point deadline) { return m_thread.EndBy(deadline); }

    /// Closes the handler, once: waits for what the host holds, without limit.
    /// Requires: the thread has ended.
    void Close();

    /// Whether the kernel has the answers to all its commands. Not once `removed` has returned.
    bool Drained() const { return m_device.ring.Empty(); }

    /// Commands taken from the ring and not answered.
    uint32_t InFlight() const { return m_device.ring.InFlight(); }

    const std::string& CfgString() const { return m_device.cfgString; }

    /// The device's directory in configfs, read when the device was added; empty when unknown.
    const std::filesystem::path& Backstore() const { return m_backstore; }

  private:
    void Serve();
    void Drain();
    void ServeAll();
    void Fail(const std::string& why);
    MoStatistics::Counters Counters();

    tcmu_device m_device;
    const std::filesystem::path m_backstore;
    const std::unique_ptr<DeviceHandler> m_handler;
    std::unique_ptr<CommandGate> m_gate;  // from Open on
    bool m_open = false;
    bool m_brokenLogged = false;        // the thread's own
    std::atomic<bool> m_failed{false};  // written by the thread
    ServiceThread m_thread;
    std::unique_ptr<MoStatistics::Registration> m_statistics;  // goes first
};
