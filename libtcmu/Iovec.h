#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

/// Work on lists of data buffers, in place. Thread: any, one at a time for one list.
namespace Iovec {

/// Bytes of all entries.
uint64_t Length(const iovec* iov, size_t count);

/// Cuts the list to its first `length` bytes. Returns: the entries that are left.
/// Requires: the list holds at least `length` bytes.
size_t Clip(iovec* iov, size_t count, uint64_t length);

/// Joins entries whose memory is adjacent and drops empty ones. Returns: the entries that are left.
size_t Merge(iovec* iov, size_t count);

/// Copies the list's first `length` bytes into flat memory.
/// Returns: the bytes copied: `length`, or less when the list holds less.
size_t Gather(const iovec* iov, size_t count, void* flat, size_t length);

/// Fills the whole list from flat memory.
void Scatter(const iovec* iov, size_t count, const void* flat);

/// Zeroes what the list holds behind its first `offset` bytes.
void ClearFrom(const iovec* iov, size_t count, uint64_t offset);

}  // namespace Iovec
