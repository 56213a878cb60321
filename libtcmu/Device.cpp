#include "libtcmu/Device.h"

#include <strings.h>

#include <cerrno>
#include <limits>

#include "libtcmu/Inquiry.h"
#include "libtcmu/Sense.h"

std::string CanonicalCfgString(std::string_view cfgString) {
    const size_t n = kCanonicalSubType.size();
    std::string canonical(cfgString);
    const bool ours = cfgString.size() > n && cfgString[n] == '/' &&
                      strncasecmp(canonical.c_str(), kCanonicalSubType.data(), n) == 0;
    return ours ? canonical.replace(0, n, kCanonicalSubType) : canonical;
}

tcmu_device::tcmu_device(LibtcmuApi& libtcmu, LibDevice* libDevice)
    : tcmu_device(libtcmu, libDevice, libtcmu.MemoryInfo(libDevice)) {}

tcmu_device::tcmu_device(LibtcmuApi& libtcmu, LibDevice* libDevice, LibtcmuApi::Memory memory)
    : api(libtcmu),
      lib(libDevice),
      cfgString(CanonicalCfgString(libtcmu.CfgString(libDevice))),
      ring(memory.base, memory.length, libtcmu.Fd(libDevice)) {}

const char* tcmu_get_dev_cfgstring(tcmu_device* dev) {
    return dev->cfgString.c_str();
}

int tcmu_get_attribute(tcmu_device* dev, const char* name) {
    return dev->api.AttrInt(dev->lib, name);
}

int64_t tcmu_get_device_size(tcmu_device* dev) {
    uint64_t size = 0;
    const int error = dev->api.InfoU64(dev->lib, "Size", size);
    if (error != 0)
        return error;
    if (size > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
        return -EOVERFLOW;
    return static_cast<int64_t>(size);
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

int tcmu_emulate_inquiry(tcmu_device* dev, uint8_t* cdb, iovec* iov, size_t iovCnt,
                         uint8_t* sense) {
    InquiryFacts facts;
    facts.blockSize = dev->blockSize;
    facts.maxTransferBlocks = dev->maxTransferBlocks;
    if (facts.maxTransferBlocks == 0 && dev->blockSize != 0)
        facts.maxTransferBlocks = kDefaultMaxTransferBytes / dev->blockSize;
    // A device that targetcli makes gets its serial after the device was opened.
    // One that can't be read must not become another identity.
    if (InquiryNeedsSerial(cdb) && dev->api.Serial(dev->lib, facts.serial) != 0)
        return SetSense(sense, Sense::kInternalTargetFailure);
    return EmulateInquiry(facts, cdb, iov, iovCnt, sense);
}

void tcmulib_command_complete(tcmu_device* dev, tcmulib_cmd* cmd, int result) {
    auto& command = static_cast<RingCommand&>(*cmd);
    if (dev->completionHook)
        dev->completionHook(command, result);
    dev->ring.Complete(command, result);
}

void tcmulib_processing_complete(tcmu_device* dev) {
    dev->ring.RingDoorbell();
}
