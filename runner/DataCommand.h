#pragma once

#include <cstdint>
#include <optional>

/// A READ or WRITE of any of the four CDB sizes, decoded (SBC-3, 5.8 to 5.11 and 5.32 to 5.35).
struct DataCommand {
    bool write;
    bool sixBytes;  ///< a CDB of 6 bytes: no protection field, zero blocks meant 256
    uint64_t lba;
    uint32_t blocks;    ///< with READ (6) and WRITE (6) already 256 for zero
    uint8_t protect;    ///< RDPROTECT or WRPROTECT; 0 in a CDB of 6 bytes
    uint8_t cacheBits;  ///< DPO and FUA, where they stand in byte 1
    uint8_t control;    ///< the CDB's last byte
};

/// Decodes a CDB of at least 16 readable bytes.
/// Returns: nothing when it isn't a READ or WRITE. Thread: any.
std::optional<DataCommand> DecodeDataCommand(const uint8_t* cdb);

/// Writes the READ (10) or WRITE (10) of the same meaning. `cdb` takes 16 bytes.
/// Requires: FitsTenBytes(command).
void EncodeTenBytes(const DataCommand& command, uint8_t* cdb);

/// Whether block address and length fit a CDB of 10 bytes.
bool FitsTenBytes(const DataCommand& command);
