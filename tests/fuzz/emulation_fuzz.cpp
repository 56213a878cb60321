// The SCSI emulation over any CDB and any buffers: nothing outside them is touched (the sanitizers
// watch), an answer is the same however they are cut, and a refusal carries sense data.

#include <algorithm>
#include <memory>

#include "tests/fuzz/Input.h"
#include "tests/support/FakeLibtcmuApi.h"

/// The opcodes, and where they have an allocation length. MODE SELECT takes data.
constexpr struct Opcode {
    uint8_t code;
    size_t allocationAt, allocationBytes;
} kOpcodes[] = {{0x00, 0, 0}, {0x12, 3, 2}, {0x1A, 4, 1}, {0x15, 0, 0},  {0x1B, 0, 0},
                {0x25, 0, 0}, {0x5A, 7, 2}, {0x55, 0, 0}, {0x9E, 10, 4}, {0x9E, 10, 4}};
constexpr size_t kMost = 4096;  // longer than any answer

void RunOne(Input& input, tcmu_device& device) {
    device.blockSize = input.Byte() % 2 == 0 ? 512 : 4096;
    device.numLbas = uint64_t{input.Number()} << (input.Byte() % 48);
    const uint8_t which = input.Byte();
    std::vector<uint8_t> cdb = input.Bytes(16);
    const Opcode& opcode = kOpcodes[which % std::size(kOpcodes)];
    for (size_t i = 0; i < cdb.size() && which >= 128; ++i) {
        static constexpr uint8_t kLikely[] = {0, 0,  0,  0,   0,   1,   1,  4,
                                              8, 16, 63, 128, 131, 176, 178};
        const bool read = i < 5 || i - opcode.allocationAt < opcode.allocationBytes;
        cdb[i] = read ? kLikely[cdb[i] % std::size(kLikely)] : 0;
    }
    cdb[0] = opcode.code;
    const bool select = (cdb[0] & 0x3F) == 0x15;
    // Each on the heap alone, so that one byte too many is seen.
    std::vector<std::unique_ptr<uint8_t[]>> buffers;
    std::vector<iovec> entries;
    uint64_t total = 0;
    for (size_t left = input.Byte() % 20; left > 0; --left) {
        const size_t length = input.Byte();
        buffers.push_back(std::make_unique<uint8_t[]>(length));
        std::generate_n(buffers.back().get(), length, [&] { return select ? input.Byte() : 0xEE; });
        entries.push_back({buffers.back().get(), length});
        total += length;
    }
    const std::vector<iovec> given = entries;
    std::vector<uint8_t> sense(18);
    const int result = Emulate(device, cdb.data(), entries.data(), entries.size(), sense.data());
    Check(result == 0 || (result == 2 && sense[0] == 0x70 && (sense[2] == 5 || sense[2] == 2)),
          "GOOD, or ILLEGAL REQUEST or NOT READY with its sense data");
    uint64_t left = 0;
    for (const iovec& entry : entries)
        left += entry.iov_len;
    Check(left <= total, "the buffers only get shorter");
    Check(left == total || (result == 0 && !select), "a refusal fills nothing");
    if (select)
        return;

    // Once more, in one piece and as long as it gets.
    uint64_t allocation = opcode.allocationBytes == 0 ? kMost : 0;
    for (size_t i = opcode.allocationAt; i < opcode.allocationAt + opcode.allocationBytes; ++i)
        allocation = allocation << 8 | std::exchange(cdb[i], 0xFF);
    std::vector<uint8_t> whole(kMost + total, 0xEE);
    iovec one{whole.data(), whole.size()};
    Check(Emulate(device, cdb.data(), &one, 1, sense.data()) == result, "buffers decide nothing");
    const uint64_t length = std::min(whole.size() - one.iov_len, allocation);
    Check(total - left == std::min(length, total), "as much of it as was asked for and fits");
    if (result != 0 || length == 0)
        return;
    std::fill(whole.begin() + static_cast<ptrdiff_t>(length), whole.end(), 0);
    auto from = whole.begin();
    for (const iovec& entry : given) {
        const auto* bytes = static_cast<uint8_t*>(entry.iov_base);
        Check(std::equal(bytes, bytes + entry.iov_len, from), "the same bytes, then zeros");
        from += static_cast<ptrdiff_t>(entry.iov_len);
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static FakeLibtcmuApi api;
    static FakeDevice lib;
    static tcmu_device device(api, lib.Lib());
    Input input(data, size);
    while (!input.Empty())
        RunOne(input, device);
    return 0;
}
