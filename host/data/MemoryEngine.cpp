#include "host/data/MemoryEngine.h"

#include <fmt/format.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "util/Log.h"

std::unique_ptr<MemoryEngine> MemoryEngine::Make(const std::string& name, uint64_t size,
                                                 Transfers& transfers, std::string& error) {
    // A nameless file in memory, whose pages come when they are first touched. Its descriptor stays
    // open: an operator reads the LUN's data at /proc/PID/fd, where the link carries the LUN's
    // name.
    UniqueFd fd(memfd_create(("moscsi:" + name).c_str(), MFD_CLOEXEC));
    void* base = MAP_FAILED;
    if (fd.Valid() && ftruncate(fd.Get(), static_cast<off_t>(size)) == 0)
        base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_NORESERVE, fd.Get(), 0);
    if (base == MAP_FAILED) {
        error = fmt::format("can't have {} bytes of memory ({}); make the LUN smaller", size,
                            strerror(errno));
        return nullptr;
    }
    // A core dump is for finding a fault, and users' data can be larger than the disk it goes to.
    if (madvise(base, size, MADV_DONTDUMP) != 0)
        MO_LOG(kLogError, "%s: core dumps will hold its data: %s", name.c_str(), strerror(errno));
    return std::unique_ptr<MemoryEngine>(
        new MemoryEngine(std::move(fd), static_cast<char*>(base), size, transfers));
}

MemoryEngine::~MemoryEngine() {
    munmap(m_base, m_size);
}

void MemoryEngine::Start(Transfer& transfer) {
    char* place = m_base + transfer.offset;
    for (const iovec& buffer : transfer.iov) {
        if (transfer.write)
            std::memcpy(place, buffer.iov_base, buffer.iov_len);
        else
            std::memcpy(buffer.iov_base, place, buffer.iov_len);
        place += buffer.iov_len;
    }
    m_transfers.Finish(transfer.ticket, static_cast<int64_t>(transfer.wanted));
}
