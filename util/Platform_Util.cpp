#include "util/Platform_Util.h"

#include "framework/FXString.h"
#include "framework/GetGUID.h"
#include "framework/MOClient.h"
#include "framework/MOPlatformInfo.h"

int Platform_Util::GetScsiServicePort() {
    MOClient client(MOPlatformInfo::getPhysicalMachine(), false, 0);
    uint64_t clientId = 0;
    client.getClientId(clientId, nullptr);  // an unknown machine leaves the id 0
    if (clientId == 0)
        return -1;

    int port = -1;
    if (ClientProperties(clientId).getISCSIPort(port, nullptr) != 0)
        return -1;
    return port;
}

void Platform_Util::GetSerialNumber(const std::string& prefix, const std::string& text,
                                    std::string& serial) {
    std::string guid;
    GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
    FXString::Format(serial, "%s-%s", prefix.c_str(), guid.c_str());
}
