#include "runner/DeviceTable.h"

#include <algorithm>
#include <cerrno>

#include "framework/ExceptionOf.h"
#include "util/Log.h"

// Called from inside a C library: nothing may be thrown through it.
int DeviceTable::Added(LibDevice* device) {
    int result = -EAGAIN;
    if (const auto fault = ExceptionOf([&] { result = Serve(device); }))
        MO_LOG(kLogError, "TCMU runner: a device can't be served: %s", fault->c_str());
    return result;
}

int DeviceTable::Serve(LibDevice* device) {
    auto server = std::make_unique<DeviceServer>(m_environment, device);
    const int result = server->Open();
    if (result != 0) {
        MO_LOG(kLogError, "TCMU runner: device %s is refused (%d)", server->CfgString().c_str(),
               result);
        return result;
    }
    const MutexGuard guard(m_mutex);
    m_servers[device] = std::move(server);
    return 0;
}

void DeviceTable::Removed(LibDevice* device) {
    std::unique_ptr<DeviceServer> server;
    {
        const MutexGuard guard(m_mutex);
        const auto found = m_servers.find(device);
        if (found == m_servers.end())
            return;
        server = std::move(found->second);
        m_servers.erase(found);
    }
    const auto fault = ExceptionOf([&] {
        server->EndThread();
        server->Close();
    });
    if (fault)
        MO_LOG(kLogError, "TCMU runner: device %s didn't close: %s", server->CfgString().c_str(),
               fault->c_str());
}

bool DeviceTable::Drained() {
    const MutexGuard guard(m_mutex);
    return std::ranges::all_of(m_servers, [](const auto& one) { return one.second->Drained(); });
}

std::vector<std::filesystem::path> DeviceTable::Backstores() {
    const MutexGuard guard(m_mutex);
    std::vector<std::filesystem::path> backstores;
    for (const auto& [device, server] : m_servers)
        backstores.push_back(server->Backstore());
    return backstores;
}

std::vector<DeviceServer*> DeviceTable::Servers() {
    const MutexGuard guard(m_mutex);
    std::vector<DeviceServer*> servers;
    for (const auto& [device, server] : m_servers)
        servers.push_back(server.get());
    return servers;
}
