// The SCSI emulation over any CDB and any buffers: nothing outside them is touched (the sanitizers
// watch), what it consumes it filled, and a refusal carries sense data.

#include <algorithm>
#include <memory>

#include "adapters/libtcmu/Device.h"
#include "tests/fuzz/Input.h"
#include "tests/support/FakeLibtcmuApi.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FakeLibtcmuApi api;
    static FakeDevice lib;
    static tcmu_device device(api, lib.Lib());
    Input input(data, size);
    device.blockSize = input.Byte() % 2 == 0 ? 512 : 4096;
    device.numLbas = uint64_t{input.Number()} << (input.Byte() % 48);
    const uint8_t which = input.Byte() % 7;
    std::vector<uint8_t> cdb = input.Bytes(16);
    // Each on the heap alone, so that one byte too many is seen.
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    std::vector<iovec> entries;
    uint64_t total = 0;
    for (size_t left = input.Byte() % 20; left > 0; --left) {
        const size_t length = input.Byte();
        buffers.push_back(std::make_unique<uint8_t[]>(length));
        std::generate_n(buffers.back().get(), length, [&] { return input.Byte(); });
        entries.push_back({buffers.back().get(), length});
        total += length;
    }
    std::vector<uint8_t> sense(18);
    iovec* const list = entries.data();
    const size_t count = entries.size();
    const auto run = [&]() -> int {
        switch (which) {
            case 0:
                return tcmu_emulate_test_unit_ready(cdb.data(), list, count, sense.data());
            case 1:
                return tcmu_emulate_inquiry(&device, cdb.data(), list, count, sense.data());
            case 2:
                return tcmu_emulate_mode_sense(cdb.data(), list, count, sense.data());
            case 3:
                return tcmu_emulate_mode_select(cdb.data(), list, count, sense.data());
            case 4:
                return tcmu_emulate_start_stop(&device, cdb.data(), sense.data());
            case 5:
                return tcmu_emulate_read_capacity_10(device.numLbas, device.blockSize, cdb.data(),
                                                     list, count, sense.data());
            default:
                return tcmu_emulate_read_capacity_16(device.numLbas, device.blockSize, cdb.data(),
                                                     list, count, sense.data());
        }
    };
    const int result = run();
    Check(result == 0 || (result == 2 && sense[0] == 0x70 && (sense[2] == 5 || sense[2] == 2)),
          "GOOD, or ILLEGAL REQUEST or NOT READY with its sense data");
    uint64_t left = 0;
    for (const iovec& entry : entries)
        left += entry.iov_len;
    Check(left <= total, "the buffers only get shorter");
    Check(result == 0 || left == total, "a refusal fills nothing");
    return 0;
}
