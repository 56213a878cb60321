#pragma once

#include <functional>
#include <string>

#include "platform/MoScsiSrvPlatform.h"

/// The plug-in's operations as the host calls them to configure: once an exception has come out of
/// one, no further one is called, for what threw may hold the configuration's lock, by contract
/// (docs/contract.md). That operation and every later one return an error.
///
/// Transfers go to the plug-in itself: IODone doesn't take that lock.
/// Thread: one at a time; the platform outlives it.
class GuardedPlatform final : public MoScsiSrvPlatform {
  public:
    /// `thrown` is told once, in one line, on the caller's thread.
    GuardedPlatform(MoScsiSrvPlatform& platform, std::function<void(const std::string&)> thrown)
        : m_platform(platform), m_thrown(std::move(thrown)) {}

    /// What was thrown, and by which operation; empty until then.
    const std::string& Fault() const { return m_fault; }

    CRyError Initialize() override;
    CRyError CreateTarget(MoScsiSrvTarget_t* target) override;
    CRyError DeleteTarget(MoScsiSrvTarget_t* target) override;
    CRyError CreateLun(MoScsiSrvLun_t* lun) override;
    CRyError DeleteLun(MoScsiSrvLun_t* lun) override;
    CRyError MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override;
    CRyError UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override;
    CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) override;
    CRyError RegisterGetVPDCB(MoScsiSrvGetVPDCb_t callback) override;
    CRyError Cleanup() override;

  private:
    CRyError Call(const char* operation, const std::function<CRyError()>& call);

    MoScsiSrvPlatform& m_platform;
    const std::function<void(const std::string&)> m_thrown;
    std::string m_fault;
};
