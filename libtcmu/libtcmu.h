#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

/// The TCMU library's names that the plug-in calls, in their older form. Debian's libtcmu.so.2 has
/// newer names and no SCSI emulation; this layer has both, over a device record and a ring walk of
/// its own (Device.h, CommandRing.h).

/// A TCMU device. Opaque to the plug-in; see libtcmu/Device.h.
struct tcmu_device;

/// One SCSI command. The record belongs to the device's ring: it is valid from fetch until
/// tcmulib_command_complete, and must not be touched afterwards.
struct tcmulib_cmd {
    uint16_t cmd_id;      ///< the kernel's number of the command
    uint8_t* cdb;         ///< a copy of the CDB, at least 16 readable bytes, zero-filled behind it
    struct iovec* iovec;  ///< data buffers; an emulation consumes them as it fills them
    size_t iov_cnt;       ///< entries at iovec
    uint8_t sense_buf[96];  ///< cleared at fetch
    void* hm_private;       ///< the runner's own
};

/// SAM-5 status codes that a handler returns.
inline constexpr int TCMU_STATUS_GOOD = 0;
inline constexpr int TCMU_STATUS_CHECK_CONDITION = 2;

// ---- Device attributes. Thread: any, between the device's open and close.

/// The configuration string "SUBTYPE/REST", the sub-type in its canonical letter case. Valid as
/// long as the device.
const char* tcmu_get_dev_cfgstring(tcmu_device* dev);
/// Returns: the integer attribute's value from configfs, or a negative errno.
int tcmu_get_attribute(tcmu_device* dev, const char* name);
/// Returns: the device's size in bytes, or a negative errno.
int64_t tcmu_get_device_size(tcmu_device* dev);
uint32_t tcmu_get_dev_block_size(tcmu_device* dev);
void tcmu_set_dev_block_size(tcmu_device* dev, uint32_t bytes);
uint64_t tcmu_get_dev_num_lbas(tcmu_device* dev);
void tcmu_set_dev_num_lbas(tcmu_device* dev, uint64_t blocks);
void tcmu_set_dev_private(tcmu_device* dev, void* priv);

// ---- CDB decoding (SBC-3; block commands of 6, 10, 12 and 16 bytes)

/// The logical block address of a READ or WRITE.
uint64_t tcmu_get_lba(const uint8_t* cdb);
/// The transfer length in blocks as the CDB states it (0 in a 6-byte CDB stays 0).
uint32_t tcmu_get_xfer_length(const uint8_t* cdb);

// ---- Sense data

/// Writes fixed-format sense data (SPC-4, 4.5.3) of 18 bytes.
/// Returns: TCMU_STATUS_CHECK_CONDITION.
int tcmu_set_sense_data(uint8_t* sense, uint8_t key, uint16_t ascAscq);

// ---- Emulation (SPC-4, SBC-3). Each returns 0, or CHECK CONDITION with `sense` set.
//
// An answer is cut to the CDB's allocation length and to the buffers. The bytes of the answer, and
// no others, are consumed: base and length of `iov` move on. What the buffers hold behind the
// answer is cleared without being consumed, because the data area keeps what earlier commands left
// there. So the answer's true length is what `iov` lost, and whoever needs the whole buffer
// afterwards walks a copy of the entries.
//
// Thread: any. `cdb` holds the CDB's whole length.

int tcmu_emulate_test_unit_ready(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense);
int tcmu_emulate_inquiry(tcmu_device* dev, uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense);
int tcmu_emulate_mode_sense(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense);
int tcmu_emulate_mode_select(uint8_t* cdb, iovec* iov, size_t iovCnt, uint8_t* sense);
int tcmu_emulate_start_stop(tcmu_device* dev, uint8_t* cdb, uint8_t* sense);
int tcmu_emulate_read_capacity_10(uint64_t numLbas, uint32_t blockSize, uint8_t* cdb, iovec* iov,
                                  size_t iovCnt, uint8_t* sense);
int tcmu_emulate_read_capacity_16(uint64_t numLbas, uint32_t blockSize, uint8_t* cdb, iovec* iov,
                                  size_t iovCnt, uint8_t* sense);

// ---- Completion

/// Completes a command to the kernel: 0, CHECK CONDITION (with the record's sense), or -1 (not
/// handled: ILLEGAL REQUEST, invalid command operation code). The device's completionHook runs
/// first. The record must not be touched afterwards.
/// Thread: any; the answers of one device are serialised here, its hooks are not.
void tcmulib_command_complete(tcmu_device* dev, tcmulib_cmd* cmd, int result);

/// Tells the kernel that completions are there. Thread: any.
void tcmulib_processing_complete(tcmu_device* dev);
