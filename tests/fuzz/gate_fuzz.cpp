// Commands and buffer lists through ring, gate, the plug-in's handler and a memory LUN: each is
// answered, and READ and WRITE move what a model of the disk says, and nothing else.

#include <gtest/gtest.h>

#include <cstring>

#include "adapters/libtcmu/Cdb.h"
#include "adapters/libtcmu/Device.h"
#include "adapters/runner/CommandGate.h"
#include "adapters/runner/DeviceHandler.h"
#include "host/data/LunData.h"
#include "platform/MoScsiSrvLIO.h"
#include "tests/fuzz/Input.h"
#include "tests/support/FakeLibtcmuApi.h"

// The runner keeps its arguments.
int tcmu_runner_main(int argc, char** argv) {
    static const auto* const kept = new std::vector<char*>(argv, argv + argc);
    return kept->empty() ? 1 : 0;
}

struct MoScsiSrvLIOTest {
    static MoScsiSrvLIO& Platform() { return *static_cast<MoScsiSrvLIO*>(GetMOScsiPlatformObj()); }
    static auto& Registry() { return Platform().m_tcmuDevMap; }
};

namespace {

constexpr uint64_t kBlock = 512;
constexpr uint64_t kBlocks = 600;  // above READ (6)'s 256

using Bytes = std::vector<uint8_t>;
using Extents = std::vector<KernelRing::Extent>;

/// The LUN as an initiator knows it; a CDB decoded once more, by the standard's tables.
class Model {
  public:
    /// Whether it is a READ or WRITE that must succeed, given so many bytes of buffers.
    bool Served(const Bytes& cdb, uint64_t buffers) {
        static const std::map<uint8_t, int> kReads{{0x08, 6}, {0x28, 10}, {0xA8, 12}, {0x88, 16}};
        const auto found = kReads.find(cdb[0] & ~0x02);
        if (found == kReads.end() || cdb.size() < 16)
            return false;
        write = (cdb[0] & 0x02) != 0;
        const auto number = [&cdb](size_t at, size_t bytes) {
            uint64_t value = 0;
            for (size_t i = at; i < at + bytes; ++i)
                value = value << 8 | cdb[i];
            return value;
        };
        const int size = found->second;
        lba = size == 6 ? number(1, 3) & 0x1FFFFF : number(2, size == 16 ? 8 : 4);
        blocks = size == 6    ? (cdb[4] == 0 ? 256 : cdb[4])
                 : size == 10 ? number(7, 2)
                              : number(size == 12 ? 6 : 10, 4);
        return (size == 6 || (cdb[1] & 0xE0) == 0) && lba <= kBlocks && blocks <= kBlocks - lba &&
               blocks * kBlock <= buffers;
    }

    bool write = false;
    uint64_t lba = 0;
    uint64_t blocks = 0;
    Bytes disk = Bytes(kBlocks * kBlock);
};

Bytes Flat(KernelRing& ring, const Extents& pieces) {
    Bytes flat;
    for (const auto& [offset, length] : pieces)
        flat.insert(flat.end(), ring.Data() + offset, ring.Data() + offset + length);
    return flat;
}

void RunOne(Input& input, FakeDevice& lib, tcmu_device& device, CommandGate& gate, Model& model) {
    Bytes cdb = input.Bytes(16);
    Extents pieces;
    size_t at = input.Byte();
    uint64_t total = 0;
    const size_t alike = input.Byte() % 4;  // most lists of a kernel are of pages
    for (size_t left = input.Byte(); left > 0; --left) {
        const size_t length = alike == 0 ? input.Number() % 4096 + 1 : size_t{512} << alike;
        pieces.push_back({at, length});
        at += length + (alike == 0 ? input.Byte() : 0) + (left % 3 == 0 ? 4096 : 0);
        total += length;
    }
    std::memset(lib.ring.Data(), input.Byte(), at);
    const Bytes sent = Flat(lib.ring, pieces);
    const uint32_t ticket = lib.Submit(cdb, pieces);

    device.ring.BeginDrain();
    while (RingCommand* command = device.ring.Fetch())
        gate.Pass(*command);
    device.ring.EndDrain();

    const auto answer = lib.AnswerOf(ticket);
    Check(answer.has_value(), "every command is answered");
    const bool served = model.Served(cdb, total);
    if (!served) {
        const bool data = IsRead(cdb[0]) || IsWrite(cdb[0]);
        Check(!data || answer->status != 0, "a READ or WRITE that can't be served isn't GOOD");
        return;
    }
    Check(answer->status == 0, "a READ or WRITE that can be served is GOOD");
    const uint64_t bytes = model.blocks * kBlock;
    uint8_t* const place = model.disk.data() + model.lba * kBlock;
    if (model.write) {
        std::copy_n(sent.begin(), bytes, place);
    } else {
        const Bytes got = Flat(lib.ring, pieces);
        Check(std::equal(place, place + bytes, got.begin()), "READ gives what was written");
        Check(std::all_of(got.begin() + static_cast<ptrdiff_t>(bytes), got.end(),
                          [](uint8_t byte) { return byte == 0; }),
              "READ leaves nothing of others behind its data");
        // The kernel takes no length of zero.
        Check(bytes == 0 || answer->readLength == bytes, "READ states its true length");
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    testing::GTEST_FLAG(throw_on_failure) = true;  // the ring's model checks too
    static FakeLibtcmuApi api;
    static FakeDevice lib;  // its memory is large
    static tcmu_device device(api, lib.Lib());
    moscsi::data::LunDataConfig config;
    config.name = "fuzz";
    config.sizeBytes = kBlocks * kBlock;
    const auto made = moscsi::data::MakeLunData(config, MoScsiSrvLIOTest::Platform());
    auto& entry = MoScsiSrvLIOTest::Registry()[device.cfgString];
    entry.first.bstoreOps = made.data.get();
    entry.first.bstoreCtx = made.data->Context();

    const auto handler = MakePluginHandler(&device);
    Check(handler->Open() == 0, "the device opens");
    tcmu_set_dev_block_size(&device, kBlock);
    tcmu_set_dev_num_lbas(&device, kBlocks);
    CommandGate gate(device, *handler);
    device.completionHook = [&gate](RingCommand& command, int& result) {
        gate.Completing(command, result);
    };

    Model model;
    Input input(data, size);
    while (!input.Empty())
        RunOne(input, lib, device, gate, model);

    // What the commands read and wrote was the LUN's whole content.
    for (uint64_t lba = 0; lba < kBlocks; lba += 8) {
        const uint32_t ticket = lib.Submit(
            {0x28, 0, 0, 0, static_cast<uint8_t>(lba >> 8), static_cast<uint8_t>(lba), 0, 0, 8, 0},
            {{0, 8 * kBlock}});
        device.ring.BeginDrain();
        while (RingCommand* command = device.ring.Fetch())
            gate.Pass(*command);
        device.ring.EndDrain();
        Check(lib.AnswerOf(ticket).has_value() &&
                  std::memcmp(lib.ring.Data(), model.disk.data() + lba * kBlock, 8 * kBlock) == 0,
              "the LUN holds what was written and nothing else");
    }
    handler->Close();
    MoScsiSrvLIOTest::Registry().erase(device.cfgString);
    return 0;
}
