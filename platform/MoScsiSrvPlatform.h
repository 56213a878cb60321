#pragma once

#include "platform/ErrorCodes.h"
#include "platform/MoScsiSrvObjects.h"

/// The platform, as the host sees it: ten operations in this slot order, no data, no virtual
/// destructor (the host never deletes the object).
///
/// Life: GetMOScsiPlatformObj -> Initialize -> any mix of the others -> Cleanup. The object lives
/// to the end of the process. Every operation returns success or the error of the first step that
/// failed; steps done before it are not undone unless said. ErrorCodes.h has the errors' numbers.
class MoScsiSrvPlatform {
  public:
    /// Starts the service script and checks the installed targetcli.
    /// Thread: one at a time, before the others. May be called again.
    /// Errors: kErrorFailed.
    virtual CRyError Initialize() = 0;

    /// Creates an iSCSI target. One that exists already is a success.
    /// Thread: any; configuration operations run one at a time.
    /// Errors: kErrorFailed.
    virtual CRyError CreateTarget(MoScsiSrvTarget_t* target) = 0;

    /// Deletes an iSCSI target. One that doesn't exist is a success.
    /// Thread: any. Errors: kErrorFailed.
    virtual CRyError DeleteTarget(MoScsiSrvTarget_t* target) = 0;

    /// Creates a LUN on an existing target. Writes the serial number, and a number that the system
    /// chose, back into the record. A LUN that exists already is a success.
    /// Thread: any. Requires: all fields that the kind of backstore reads are filled.
    /// Errors: kErrorFailed, kErrorInvalid, kErrorInUse, an errno.
    virtual CRyError CreateLun(MoScsiSrvLun_t* lun) = 0;

    /// Deletes a LUN; its data stays. For a user LUN it returns when the LUN's device has closed,
    /// which takes as long as the host holds contexts of it.
    /// Thread: any, but none that completes I/O of this LUN. Errors: kErrorFailed.
    virtual CRyError DeleteLun(MoScsiSrvLun_t* lun) = 0;

    /// Lets an initiator see a LUN, under the LUN's own number.
    /// Thread: any. Errors: kErrorFailed.
    virtual CRyError MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) = 0;

    /// Takes a LUN from an initiator. The initiator's node ACL stays.
    /// Thread: any. Errors: kErrorFailed.
    virtual CRyError UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) = 0;

    /// Ends a transfer that Read or Write began. `nbytes` is the number of bytes moved: any value
    /// but the record's length makes the initiator see MEDIUM ERROR. That of a write says also that
    /// the bytes are on stable storage: nothing asks for it later. Returns: always success.
    /// Thread: any; not from inside Abort. Requires: a record that the host holds; it is not the
    /// host's any more when this returns.
    virtual CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) = 0;

    /// Accepts a supplier of VPD pages, and keeps nothing: INQUIRY is answered without it.
    /// Returns: always success. Thread: any.
    virtual CRyError RegisterGetVPDCB(MoScsiSrvGetVPDCb_t cb) = 0;

    /// Stops the service script and interrupts the runner. Waits for neither; targets, LUNs and
    /// devices stay.
    /// Returns: always success. Thread: one at a time.
    virtual CRyError Cleanup() = 0;

  protected:
    ~MoScsiSrvPlatform() = default;
};

/// The plug-in's one exported symbol: the process-wide MoScsiSrvPlatform, made at the first call.
/// Thread: any.
extern "C" void* GetMOScsiPlatformObj();
