#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

/// INQUIRY of a direct access block device (SPC-4, 6.6 and 7.8; SBC-3, 6.6).

/// What the answers say about the device.
struct InquiryFacts {
    uint32_t blockSize = 512;
    uint32_t maxTransferBlocks = 0;  ///< 0: no limit stated
    std::string serial;              ///< empty: not known
};

/// True when the page that the CDB asks for needs InquiryFacts::serial.
bool InquiryNeedsSerial(const uint8_t* cdb);

/// Answers INQUIRY as the contract of the emulation in libtcmu.h has it.
int EmulateInquiry(const InquiryFacts& facts, const uint8_t* cdb, iovec* iov, size_t iovCnt,
                   uint8_t* sense);
