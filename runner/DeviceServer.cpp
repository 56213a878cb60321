#include "runner/DeviceServer.h"

#include <poll.h>

#include "framework/ExceptionOf.h"
#include "libtcmu/Backstore.h"
#include "libtcmu/Sense.h"
#include "util/Log.h"

DeviceServer::DeviceServer(const RunnerEnvironment& environment, LibDevice* device)
    : m_device(*environment.tcmu, device),
      m_backstore(BackstoreOf(environment.uioClass, environment.backstores,
                              environment.tcmu->UioName(device))),
      m_handler(environment.makeHandler(&m_device)) {}

DeviceServer::~DeviceServer() {
    EndThread();
    Close();
}

int DeviceServer::Open() {
    const int result = m_handler->Open();
    if (result != 0)
        return result;
    m_open = true;
    m_gate = std::make_unique<CommandGate>(m_device, *m_handler);
    m_device.completionHook = [gate = m_gate.get()](RingCommand& command, int& status) {
        gate->Completing(command, status);
    };
    m_statistics =
        MoStatistics::Register("device " + m_device.cfgString, [this] { return Counters(); });
    m_thread.Start("moscsi-device", [this] { Serve(); });
    return 0;
}

void DeviceServer::Close() {
    if (!m_open)
        return;
    m_open = false;
    m_handler->Close();
}

void DeviceServer::Serve() {
    pollfd waits[] = {{m_device.api.Fd(m_device.lib), POLLIN, 0}, {m_thread.EndFd(), POLLIN, 0}};
    while (!m_thread.Ending()) {
        Drain();
        poll(waits, 2, -1);
        // The kernel has removed the device: nothing comes any more, but its removal.
        if ((waits[0].revents & (POLLERR | POLLHUP | POLLNVAL)) != 0)
            waits[0].fd = -1;
    }
}

// The event count is taken first, so that what comes during the drain wakes the thread again.
void DeviceServer::Drain() {
    m_device.api.ProcessingStart(m_device.lib);
    m_device.ring.BeginDrain();
    if (const auto fault = ExceptionOf([this] { ServeAll(); })) {
        Fail(*fault);
        ServeAll();
    }
    m_device.ring.EndDrain();

    const char* broken = m_device.ring.Broken();
    if (broken != nullptr && !m_brokenLogged) {
        m_brokenLogged = true;
        MO_LOG(kLogError, "TCMU runner: %s can't be served any more: %s",
               m_device.cfgString.c_str(), broken);
    }
}

void DeviceServer::ServeAll() {
    while (!m_thread.Ending()) {
        RingCommand* command = m_device.ring.Fetch();
        if (command == nullptr)
            return;
        if (m_failed)
            tcmulib_command_complete(
                &m_device, command,
                SetSense(command->sense_buf, Sense::kNotReadyManualIntervention));
        else
            m_gate->Pass(*command);
    }
}

// The command that was being served may be the host's already: it is left to the kernel's time-out.
void DeviceServer::Fail(const std::string& why) {
    m_failed = true;
    MO_LOG(kLogError,
           "TCMU runner: %s: its thread failed (%s): the LUN answers NOT READY until the server is "
           "restarted",
           m_device.cfgString.c_str(), why.c_str());
}

MoStatistics::Counters DeviceServer::Counters() {
    MoStatistics::Counters counters = m_handler->Counters();
    const MoStatistics::Counters gate = m_gate->Counters();
    counters.insert(counters.end(), gate.begin(), gate.end());
    const CommandRing::Stats& ring = m_device.ring.GetStats();
    counters.emplace_back("ring: in flight", m_device.ring.InFlight());
    counters.emplace_back("ring: fetched", ring.fetched.load());
    counters.emplace_back("ring: completed", ring.completed.load());
    counters.emplace_back("ring: doorbells", ring.doorbells.load());
    counters.emplace_back("ring: doorbell errors", ring.doorbellErrors.load());
    counters.emplace_back("ring: bad entries", ring.badEntries.load());
    counters.emplace_back("ring: other entries", ring.otherEntries.load());
    counters.emplace_back("ring: completed twice", ring.completedTwice.load());
    counters.emplace_back("ring: without memory", ring.withoutMemory.load());
    counters.emplace_back("device failed", m_failed ? 1 : 0);
    return counters;
}
