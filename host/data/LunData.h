#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "host/data/Backing.h"
#include "host/data/EngineChoice.h"
#include "host/data/FaultPlan.h"
#include "host/data/LunStatistics.h"
#include "platform/MoScsiSrvPlatform.h"

struct Transfer;

/// How long the kernel waits for a command of a TCMU device when nobody has changed the device's
/// attribute cmd_time_out (TCMU_TIME_OUT in drivers/target/target_core_user.c).
inline constexpr std::chrono::milliseconds kDefaultCommandTimeOut{30000};

struct LunDataConfig {
    std::string name;  ///< for log lines
    Backing backing = Backing::Memory;
    std::string path;        ///< Backing::File: absolute path
    uint64_t sizeBytes = 0;  ///< a positive multiple of 512
    FaultPlan faults;
    FileEngineChoice engine = FileEngineChoice::Auto;  ///< Backing::File
    std::chrono::milliseconds commandTimeOut = kDefaultCommandTimeOut;

    /// Where the data is, for people.
    const char* Place() const;
};

/// The data operations of one user LUN: the object for MoScsiSrvLun's `bstoreOps`, its Context()
/// for `bstoreCtx`.
///
/// Life of a transfer:
///  1. Read or Write takes the context on loan and copies its buffer list. Never beyond the
///     backing: the part within is moved, and its length reported.
///  2. The fault plan may fail, shorten, delay or hold it. A write waits for the end of each
///  earlier
///     one on the same bytes. Then the backing's engine moves the data.
///  3. What hasn't begun when the kernel is about to answer by time-out ends with -ETIMEDOUT, and
///     never begins: its initiator sends it again, or something newer.
///  4. IODone is called exactly once. A second end of the same transfer is counted, logged and not
///     passed on.
///
/// IODone's thread: a memory LUN's transfer ends inside Read or Write, on the device's thread (a
/// wake-up of another thread would cost more than the copy); a file's on this object's completion
/// thread. Aborted, delayed, held and late transfers, and writes that waited for others, end or
/// begin on this object's waiting thread.
///
/// Durability: a file's write is on stable storage before its IODone.
///
/// Lifetime: from before CreateLun until DeleteLun has returned; then Stop() or the destructor.
class LunData : public MoScsiBStorOps {
  public:
    ~LunData() override;
    LunData(const LunData&) = delete;
    LunData& operator=(const LunData&) = delete;

    /// The `bstoreCtx` that goes with this object. Operations don't read it: one object, one LUN.
    void* Context() { return this; }

    /// Start a transfer. Returns: success always, errors are told by IODone's count.
    /// Thread: any. Requires: the record and its buffers stay until IODone; its list may change.
    CRyError Read(void* bstoreCtx, MoScsiSrvIO* ioctx, int reserved) final;
    CRyError Write(void* bstoreCtx, MoScsiSrvIO* ioctx, int reserved) final;

    /// Asks a transfer back. One that hasn't begun ends at once with -ECANCELED, from another
    /// thread; one that has ends by itself. A context that isn't on loan is logged and ignored.
    /// Returns: success always. Thread: any, locks held or not: IODone never comes from inside.
    CRyError Abort(void* bstoreCtx, MoScsiSrvIO* ioctx) final;

    /// Tells how long the kernel waits for a command of this LUN's device before it answers itself;
    /// zero: for ever. Counts for what begins to wait from now on. Thread: any.
    void SetCommandTimeOut(std::chrono::milliseconds timeOut);

    /// Thread: any.
    LunStatistics Snapshot() const;

    /// Asks everything back that hasn't begun, waits until each context was returned, and ends the
    /// threads. A transfer that comes later ends at once with -ESHUTDOWN.
    /// Thread: any but those that call IODone. May be called again.
    void Stop();

    struct Parts;  ///< the implementation's
    explicit LunData(std::unique_ptr<Parts> parts);

  private:
    void BeginInOrder(Transfer& transfer);
    CRyError Begin(MoScsiSrvIO* ioctx, bool write);
    void BeginFaulty(Transfer& transfer, const FaultRule& fault);

    const std::unique_ptr<Parts> m_parts;
};

struct LunDataResult {
    std::unique_ptr<LunData> data;  ///< null on error
    std::string error;              ///< one line: what is wrong and what to do
};

/// Makes a LUN's data side. A backing file must be there, a regular file of exactly the configured
/// size, used by no other LUN or host (an advisory lock on it).
/// `platform` takes the IODone calls and outlives the object.
/// Thread: any; may block on the file system.
LunDataResult MakeLunData(const LunDataConfig& config, MoScsiSrvPlatform& platform);
