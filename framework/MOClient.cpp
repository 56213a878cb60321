#include "framework/MOClient.h"

#include "framework/MOPlatformInfo.h"

MOClient::MOClient(const char* machine, bool /*reservedFlag*/, int /*reserved*/)
    : m_machine(machine) {}

int MOClient::getClientId(uint64_t& id, void* /*reserved*/) const {
    const auto facts = CurrentFacts();
    const auto client = facts->clients.find(m_machine);
    if (client == facts->clients.end())
        return 1;
    id = client->second.id;
    return 0;
}

ClientProperties::ClientProperties(uint64_t id) : m_id(id) {}

int ClientProperties::getISCSIPort(int& port, void* /*reserved*/) const {
    const auto facts = CurrentFacts();
    for (const auto& [machine, client] : facts->clients) {
        if (client.id == m_id && client.iscsiPort > 0) {
            port = client.iscsiPort;
            return 0;
        }
    }
    return 1;
}
