#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <system_error>

#include "host/data/Transfers.h"

/// One call to the kernel. `iov` stays valid until the request ended.
struct FileRequest {
    enum class Kind { Read, Write, Sync };  ///< preadv2(2), pwritev2(2), fdatasync(2)
    Kind kind = Kind::Read;
    int flags = 0;  ///< RWF_ flags of preadv2 and pwritev2
    const iovec* iov = nullptr;
    int count = 0;
    uint64_t offset = 0;
    Ticket ticket = 0;
    bool mayBlock = false;  ///< is begun where it may block at once, without a try that must not
};

/// Tickets that no transfer has: places don't reach that far.
inline constexpr Ticket kSyncTicket = ~Ticket{0};

/// Carries requests of one file to the kernel. It neither resumes nor retries: FileEngine does.
class FileQueue {
  public:
    /// Called once a request, with the bytes moved or -errno: on a thread of the queue's own, or
    /// inside Submit when the request is refused. No lock of the queue is held.
    using Ended = std::function<void(Ticket ticket, int64_t result)>;

    virtual ~FileQueue() = default;

    virtual const char* Name() const = 0;

    /// Requests that may be under way at once, beside one Sync; the caller keeps to it.
    virtual size_t Depth() const = 0;

    /// Thread: any.
    virtual void Submit(const FileRequest& request) = 0;

    /// Ends the threads. Requires: no request is under way. May be called again.
    virtual void Stop() = 0;
};

/// Why there is no thread, for a line to people.
inline std::string NoThread(const std::system_error& fault) {
    return std::string("no thread: ") + fault.code().message();
}

/// Makes a queue for an open file. Returns: null with a reason in `error` when it isn't possible.
using FileQueueMaker =
    std::function<std::unique_ptr<FileQueue>(int fd, FileQueue::Ended ended, std::string& error)>;
