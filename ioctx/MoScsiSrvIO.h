#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

/// One data transfer, lent to the host between Read or Write and IODone. The I/O context manager
/// owns the record and its buffer list; the buffers are the kernel's data area. Field order is part
/// of the contract with the host.
struct MoScsiSrvIO {
    iovec* iov;       ///< data buffers, in order
    int64_t iovcnt;   ///< entries in use at iov
    uint64_t offset;  ///< first byte of the transfer on the device
    uint64_t length;  ///< bytes to transfer; may be less than the buffers hold
};

// As hosts were built with it.
static_assert(offsetof(MoScsiSrvIO, iov) == 0);
static_assert(offsetof(MoScsiSrvIO, iovcnt) == 8 && sizeof(MoScsiSrvIO::iovcnt) == 8);
static_assert(offsetof(MoScsiSrvIO, offset) == 16 && sizeof(MoScsiSrvIO::offset) == 8);
static_assert(offsetof(MoScsiSrvIO, length) == 24 && sizeof(MoScsiSrvIO::length) == 8);
static_assert(sizeof(MoScsiSrvIO) == 32);
