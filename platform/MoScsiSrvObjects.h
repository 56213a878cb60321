#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "framework/CRyError.h"
#include "ioctx/MoScsiSrvIO.h"

/// The records that the host passes. They are shared field for field with the host: order and
/// widths are a contract. The host owns every record; the plug-in reads them during the call only,
/// and keeps nothing but the copy of a user LUN in its registry.

/// An iSCSI target. Only the first field is read.
struct MoScsiSrvTarget {
    std::string targetName;  ///< iSCSI qualified name (RFC 7143, 4.2.7)
};
typedef MoScsiSrvTarget MoScsiSrvTarget_t;

/// An initiator. Only the first field is read.
struct MoScsiSrvHost {
    std::string initiatorName;  ///< iSCSI qualified name; names the node ACL
};
typedef MoScsiSrvHost MoScsiSrvHost_t;

/// Kind of storage behind a LUN.
enum : uint32_t {
    BSTOR_FILE = 1,     ///< a regular file, LIO "fileio"
    BSTOR_BLKDEV = 2,   ///< a block device, LIO "block"
    BSTOR_USER = 3,     ///< data served by the host through TCMU, LIO "user"
    BSTOR_BLKDEV2 = 4,  ///< treated exactly as BSTOR_BLKDEV
};

/// A LUN number that asks the system to choose.
inline constexpr uint32_t kAutomaticLunNumber = 0xFFFFFFFF;

/// The host's data operations of a LUN. The plug-in calls three slots by position: the ninth, tenth
/// and eleventh; the first eight are the host's own.
///
/// Life of one transfer:
///  1. The plug-in fills a MoScsiSrvIO and calls Read or Write, no lock held, on the thread that
///     serves the LUN's device. These only start the transfer, and don't block; their result is
///     ignored.
///  2. The host moves the data between `iov` and its storage, on any thread.
///  3. The host calls MoScsiSrvPlatform::IODone exactly once with the record and the number of
///     bytes moved, maybe before Read or Write returns. From then on the record is not the host's.
///
/// Lifetime: the object and its context live until the LUN's DeleteLun has returned.
class MoScsiBStorOps {
  public:
    virtual void HostSlot1() {}
    virtual void HostSlot2() {}
    virtual void HostSlot3() {}
    virtual void HostSlot4() {}
    virtual void HostSlot5() {}
    virtual void HostSlot6() {}
    virtual void HostSlot7() {}
    virtual void HostSlot8() {}

    /// Starts to fill the record's buffers from `offset`, `length` bytes. `reserved` is 0.
    /// Must not block on storage or on another transfer; a copy in memory does not. The device's
    /// thread calls it while it drains the commands that have come, and until the end of its drain
    /// the answers of other threads wait, too: one that blocks here holds back the whole LUN.
    virtual CRyError Read(void* bstoreCtx, MoScsiSrvIO* ioctx, int reserved) = 0;

    /// Starts to store the record's buffers at `offset`, `length` bytes. `reserved` is 0.
    /// Must not block, as Read.
    /// A write is on stable storage before its IODone: initiators are told that there is no cache
    /// and that FUA holds (SBC-3, 6.4.5: WCE zero), and their SYNCHRONIZE CACHE is answered GOOD
    /// without a word to the host. A host that can't promise that must not complete the write.
    virtual CRyError Write(void* bstoreCtx, MoScsiSrvIO* ioctx, int reserved) = 0;

    /// Asks the host to give a transfer back soon, on a device that closes. Called with the
    /// device's mutex held: the host must not call IODone from inside, only from another thread or
    /// later.
    virtual CRyError Abort(void* bstoreCtx, MoScsiSrvIO* ioctx) = 0;

    virtual ~MoScsiBStorOps() = default;
};

/// A logical unit. The default constructor leaves the fields without an initialiser uninitialised
/// on purpose: the host always fills them.
struct MoScsiSrvLun {
    // Not `= default`: value-initialisation must not clear the fields that are left alone either.
    // NOLINTNEXTLINE(modernize-use-equals-default)
    MoScsiSrvLun() {}

    std::string serialNum;   ///< unit serial number; a create appends to it
    uint32_t lunNum;         ///< 0..65534, or automatic: the system writes its choice back
    std::string targetName;  ///< name of the target that carries the LUN
    std::string path;        ///< backing file, block device node, or the host's own text
    uint32_t bstorType;      ///< one of the BSTOR_ codes
    uint64_t size;           ///< bytes; zero means not set
    uint32_t hostWord;       ///< the host's, copied and never read, like the host... fields below
    uint64_t hostQword1;
    std::string hostString;
    void* bstoreCtx = nullptr;            ///< handed back to bstoreOps
    MoScsiBStorOps* bstoreOps = nullptr;  ///< data operations of a BSTOR_USER LUN
    uint64_t hostQword2 = 0;
    bool hostFlag = false;
    uint64_t hostQword3;
};
typedef MoScsiSrvLun MoScsiSrvLun_t;

// As hosts were built with them, on a 64-bit machine. The sizes are of fields that have room behind
// them, which an offset doesn't tell.
static_assert(offsetof(MoScsiSrvTarget, targetName) == 0 &&
              offsetof(MoScsiSrvHost, initiatorName) == 0);
static_assert(offsetof(MoScsiSrvLun, serialNum) == 0);
static_assert(offsetof(MoScsiSrvLun, lunNum) == 32 && sizeof(MoScsiSrvLun::lunNum) == 4);
static_assert(offsetof(MoScsiSrvLun, targetName) == 40);
static_assert(offsetof(MoScsiSrvLun, path) == 72);
static_assert(offsetof(MoScsiSrvLun, bstorType) == 104 && sizeof(MoScsiSrvLun::bstorType) == 4);
static_assert(offsetof(MoScsiSrvLun, size) == 112);
static_assert(offsetof(MoScsiSrvLun, hostWord) == 120 && sizeof(MoScsiSrvLun::hostWord) == 4);
static_assert(offsetof(MoScsiSrvLun, hostQword1) == 128 && sizeof(MoScsiSrvLun::hostQword1) == 8);
static_assert(offsetof(MoScsiSrvLun, hostString) == 136);
static_assert(offsetof(MoScsiSrvLun, bstoreCtx) == 168);
static_assert(offsetof(MoScsiSrvLun, bstoreOps) == 176);
static_assert(offsetof(MoScsiSrvLun, hostQword2) == 184);
static_assert(offsetof(MoScsiSrvLun, hostFlag) == 192 && sizeof(MoScsiSrvLun::hostFlag) == 1);
static_assert(offsetof(MoScsiSrvLun, hostQword3) == 200 && sizeof(MoScsiSrvLun::hostQword3) == 8);
static_assert(sizeof(MoScsiSrvLun) == 208);

/// The host's supplier of VPD pages: LUN, page code, output buffer, its length in bytes.
typedef CRyError (*MoScsiSrvGetVPDCb_t)(MoScsiSrvLun* lun, uint32_t page, char* buffer,
                                        int64_t length);
