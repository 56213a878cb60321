#include "runner/NetlinkReset.h"

#include <cerrno>
#include <cstring>

#include "framework/SmallFile.h"
#include "util/Log.h"

NetlinkReset::NetlinkReset(std::filesystem::path parameters)
    : m_parameters(std::move(parameters)) {}

NetlinkReset::~NetlinkReset() {
    Unblock();
}

bool NetlinkReset::BlockAndReset() {
    m_blocked = Write("block_netlink", "1");
    return m_blocked && Write("reset_netlink", "1");
}

bool NetlinkReset::Unblock() {
    if (!m_blocked)
        return true;
    m_blocked = !Write("block_netlink", "0");
    return !m_blocked;
}

bool NetlinkReset::Write(const char* parameter, const char* value) {
    const std::filesystem::path path = m_parameters / parameter;
    const int error = WriteSmallFile(path, value);
    if (error != 0)
        MO_LOG(kLogError, "TCMU runner: cannot write %s to %s: %s", value, path.c_str(),
               strerror(error));
    return error == 0;
}
