#pragma once

#include "adapters/libtcmu/Device.h"

/// Runs the emulation of the CDB's opcode.
inline int Emulate(tcmu_device& dev, uint8_t* cdb, iovec* iov, size_t count, uint8_t* sense) {
    switch (cdb[0]) {
        case 0x00:
            return tcmu_emulate_test_unit_ready(cdb, iov, count, sense);
        case 0x12:
            return tcmu_emulate_inquiry(&dev, cdb, iov, count, sense);
        case 0x15:
        case 0x55:
            return tcmu_emulate_mode_select(cdb, iov, count, sense);
        case 0x1A:
        case 0x5A:
            return tcmu_emulate_mode_sense(cdb, iov, count, sense);
        case 0x1B:
            return tcmu_emulate_start_stop(&dev, cdb, sense);
        case 0x25:
            return tcmu_emulate_read_capacity_10(dev.numLbas, dev.blockSize, cdb, iov, count,
                                                 sense);
        default:
            return tcmu_emulate_read_capacity_16(dev.numLbas, dev.blockSize, cdb, iov, count,
                                                 sense);
    }
}
