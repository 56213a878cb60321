// The registry, in which a user LUN and the device that serves it meet by configuration string.

#include "platform/MoScsiSrvLIO.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "util/Log.h"

bool MoScsiSrvLIO::RegisterTcmuDev(MoScsiSrvTcmuDev* dev) {
    MO_TRACE(kTraceDetail);
    m_tcmuDevMapMutex.lock();
    const std::string key = dev->TcmuDevCfgString();
    bool registered = true;
    const auto entry = m_tcmuDevMap.find(key);
    if (entry == m_tcmuDevMap.end()) {
        // Made in place: a LUN record of its own would be copied with fields that nobody filled.
        auto& made = m_tcmuDevMap[key];
        made.first.lunNum = 0;  // a delete that waits for the device prints it
        made.second = dev;
    } else if (entry->second.second != nullptr) {
        MO_LOG(kLogError, "tcmudev %s is already registered %p %p", key.c_str(),
               static_cast<void*>(entry->second.second), static_cast<void*>(dev));
        registered = false;
    } else {
        entry->second.second = dev;
    }
    m_tcmuDevMapMutex.unlock();
    return registered;
}

bool MoScsiSrvLIO::UnRegisterTcmuDev(MoScsiSrvTcmuDev* dev) {
    MO_TRACE(kTraceDetail);
    m_tcmuDevMapMutex.lock();
    const auto entry = m_tcmuDevMap.find(dev->TcmuDevCfgString());
    const bool known = entry != m_tcmuDevMap.end();
    if (known)
        entry->second.second = nullptr;
    m_tcmuDevMapMutex.unlock();
    return known;
}

bool MoScsiSrvLIO::GetBStoreInfo(const std::string& name, std::pair<MoScsiBStorOps*, void*>& out) {
    m_tcmuDevMapMutex.lock();
    const auto entry = m_tcmuDevMap.find(name);
    const bool known = entry != m_tcmuDevMap.end() && entry->second.first.bstoreCtx != nullptr &&
                       entry->second.first.bstoreOps != nullptr;
    if (known)
        out = {entry->second.first.bstoreOps, entry->second.first.bstoreCtx};
    m_tcmuDevMapMutex.unlock();
    return known;
}

CRyError MoScsiSrvLIO::RegisterGetVPDCB(MoScsiSrvGetVPDCb_t /*cb*/) {
    MO_TRACE(kTraceDetail);
    return CRyError::Success();
}
