#include "host/data/MemoryEngine.h"

#include <fmt/format.h>
#include <sys/mman.h>

#include <cerrno>
#include <cstring>

namespace moscsi::data {

std::unique_ptr<MemoryEngine> MemoryEngine::Make(uint64_t size, Transfers& transfers,
                                                 std::string& error) {
    // Pages come when they are first touched; a reservation would refuse what is never used.
    void* const base = mmap(nullptr, size, PROT_READ | PROT_WRITE,
                            MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED) {
        error = fmt::format("can't have {} bytes of memory ({}); make the LUN smaller", size,
                            strerror(errno));
        return nullptr;
    }
    return std::unique_ptr<MemoryEngine>(
        new MemoryEngine(static_cast<char*>(base), size, transfers));
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

}  // namespace moscsi::data
