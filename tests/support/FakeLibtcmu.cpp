// Stands in for libtcmu/; TcmuDevFixture.h has its device.

#include "tests/support/TcmuDevFixture.h"

/// As the real ones do: fills all buffers and consumes the entries while it goes.
static int Emulate(const std::string& call, iovec* iov, size_t iovCnt, uint8_t* sense,
                   auto... numbers) {
    CapturingLogWriter::Installed().Note((call + ... + (" " + std::to_string(numbers))));
    if (g_emulationStatus != 0) {
        tcmu_set_sense_data(sense, 7, 0x1234);
        return g_emulationStatus;
    }
    for (; iovCnt > 0; ++iov, --iovCnt) {
        std::fill_n(static_cast<uint8_t*>(iov->iov_base), iov->iov_len, 'e');
        iov->iov_base = static_cast<char*>(iov->iov_base) + iov->iov_len;
        iov->iov_len = 0;
    }
    return 0;
}

const char* tcmu_get_dev_cfgstring(tcmu_device* dev) {
    return dev->cfgString.c_str();
}
int tcmu_get_attribute(tcmu_device* dev, const char* name) {
    return name == std::string("hw_block_size") ? dev->hwBlockSize : -2;
}
int64_t tcmu_get_device_size(tcmu_device* dev) {
    return dev->size;
}
uint32_t tcmu_get_dev_block_size(tcmu_device* dev) {
    return dev->blockSize;
}
void tcmu_set_dev_block_size(tcmu_device* dev, uint32_t bytes) {
    dev->blockSize = bytes;
}
uint64_t tcmu_get_dev_num_lbas(tcmu_device* dev) {
    return dev->numLbas;
}
void tcmu_set_dev_num_lbas(tcmu_device* dev, uint64_t blocks) {
    dev->numLbas = blocks;
}
void tcmu_set_dev_private(tcmu_device* dev, void* priv) {
    dev->priv = priv;
}

int tcmu_emulate_test_unit_ready(uint8_t*, iovec* iov, size_t iovCnt, uint8_t* sense) {
    return Emulate("test_unit_ready", iov, iovCnt, sense);
}
int tcmu_emulate_inquiry(tcmu_device*, uint8_t*, iovec* iov, size_t iovCnt, uint8_t* sense) {
    return Emulate("inquiry", iov, iovCnt, sense);
}
int tcmu_emulate_mode_sense(uint8_t*, iovec* iov, size_t iovCnt, uint8_t* sense) {
    return Emulate("mode_sense", iov, iovCnt, sense);
}
int tcmu_emulate_mode_select(uint8_t*, iovec* iov, size_t iovCnt, uint8_t* sense) {
    return Emulate("mode_select", iov, iovCnt, sense);
}
int tcmu_emulate_start_stop(tcmu_device*, uint8_t*, uint8_t* sense) {
    return Emulate("start_stop", nullptr, 0, sense);
}
int tcmu_emulate_read_capacity_10(uint64_t numLbas, uint32_t blockSize, uint8_t*, iovec* iov,
                                  size_t iovCnt, uint8_t* sense) {
    return Emulate("read_capacity_10", iov, iovCnt, sense, numLbas, blockSize);
}
int tcmu_emulate_read_capacity_16(uint64_t numLbas, uint32_t blockSize, uint8_t*, iovec* iov,
                                  size_t iovCnt, uint8_t* sense) {
    return Emulate("read_capacity_16", iov, iovCnt, sense, numLbas, blockSize);
}

void tcmulib_command_complete(tcmu_device* dev, tcmulib_cmd* cmd, int result) {
    char text[32];
    snprintf(text, sizeof text, "done %d/%06x", result, SenseOf(*cmd));
    CapturingLogWriter::Installed().Note(text);
    dev->onComplete(cmd);
}
void tcmulib_processing_complete(tcmu_device* /*dev*/) {
    CapturingLogWriter::Installed().Note("doorbell");
}
