// Commands and buffer lists through ring, gate, the plug-in's handler and a memory LUN: each is
// answered, and READ and WRITE move what a model of the disk says, and nothing else.

#include <random>

#include "host/data/LunData.h"
#include "libtcmu/Cdb.h"
#include "tests/fuzz/Input.h"
#include "tests/support/GateRig.h"

constexpr uint64_t kBlock = GateRig::kBlock;
constexpr uint64_t kBlocks = 600;  // above READ (6)'s 256

/// Where a READ has its block address and its length, by the standard's tables; a WRITE has bit 1
/// of the opcode set.
constexpr struct Shape {
    uint8_t read;
    size_t lbaAt, lbaBytes, blocksAt, blocksBytes;
} kShapes[] = {{0x08, 1, 3, 4, 1}, {0x28, 2, 4, 7, 2}, {0xA8, 2, 4, 6, 4}, {0x88, 2, 8, 10, 4}};

/// The LUN as an initiator knows it; a CDB decoded once more.
struct Model {
    Bytes disk = Bytes(kBlocks * kBlock);
    bool write = false;
    uint64_t lba = 0;
    uint64_t blocks = 0;

    /// Returns: whether the CDB is a READ's or WRITE's, which the members describe then.
    bool Decode(const Bytes& cdb) {
        for (const Shape& shape : kShapes) {
            if ((cdb[0] & ~0x02) != shape.read)
                continue;
            const auto number = [&cdb](size_t at, size_t bytes) {
                uint64_t value = 0;
                for (size_t i = at; i < at + bytes; ++i)
                    value = value << 8 | cdb[i];
                return value;
            };
            write = (cdb[0] & 0x02) != 0;
            lba = number(shape.lbaAt, shape.lbaBytes);
            blocks = number(shape.blocksAt, shape.blocksBytes);
            if (shape.blocksBytes == 1) {
                lba &= 0x1FFFFF;
                blocks = blocks == 0 ? 256 : blocks;
            }
            return true;
        }
        return false;
    }
    /// The status, sense key and additional sense of its answer; the first rule that applies
    /// decides.
    int Answer(const Bytes& cdb, uint64_t buffers) const {
        if (lba > kBlocks || blocks > kBlocks - lba)
            return 0x02052100;
        const bool protection = cdb[0] >= 0x20 && (cdb[1] & 0xE0) != 0;
        return protection || buffers < blocks * kBlock ? 0x02052400 : 0;
    }
};

/// Makes it a READ or WRITE about the LUN's size.
void Bend(Bytes& cdb, Input& input) {
    const Shape& shape = kShapes[cdb[0] / 2 % 4];
    const auto store = [&](size_t at, size_t bytes, uint32_t value) {
        for (; bytes > 0; --bytes, value >>= 8)
            cdb[at + bytes - 1] = static_cast<uint8_t>(value);
    };
    cdb[0] = shape.read | (cdb[0] % 2) << 1;
    cdb[1] &= cdb[14] % 16 == 0 ? 0xFF : 0x1F;
    store(shape.lbaAt, shape.lbaBytes, input.Number() % (kBlocks + 1));
    store(shape.blocksAt, shape.blocksBytes, input.Byte());
}

void RunOne(Input& input, GateRig& rig, Model& model) {
    static const Bytes noise = [] {
        Bytes bytes(size_t{2} << 20);
        std::generate(bytes.begin(), bytes.end(), std::minstd_rand(1));
        return bytes;
    }();
    Bytes cdb = input.Bytes(16);
    static constexpr uint8_t kOthers[] = {0x00, 0x12, 0x15, 0x1A, 0x1B, 0x25,
                                          0x35, 0x55, 0x5A, 0x91, 0x9E};
    const bool bent = cdb[15] % 8 != 0;  // the last byte tells nobody else anything
    if (bent)
        Bend(cdb, input);
    else if (cdb[15] != 0)
        cdb[0] = kOthers[cdb[15] / 8 % std::size(kOthers)];
    Extents pieces;
    size_t at = input.Byte();
    uint64_t total = 0;
    const size_t alike = input.Byte() % 4;  // most lists of a kernel are of pages
    for (size_t left = size_t{input.Byte()} * (bent && alike == 0 ? 4 : 1); left > 0; --left) {
        const size_t length = alike > 0 ? size_t{512} << alike
                              : bent    ? input.Byte()
                                        : input.Number() % 4096 + 1;
        pieces.push_back({at, length});
        at += length + (alike == 0 ? input.Byte() : 0) + (left % 3 == 0 ? 4096 : 0);
        total += length;
    }
    const size_t shift = input.Byte();
    Bytes memory(noise.begin() + shift, noise.begin() + shift + at + 1);
    std::copy(memory.begin(), memory.end(), rig.lib.ring.Data());

    const auto answer = rig.Answer(cdb, pieces);
    Check(answer.has_value() && rig.device.ring.Empty(), "every command is answered");
    const uint8_t* const sense = answer->sense.data();
    const int outcome = answer->status << 24 | sense[2] << 16 | LoadBe16(&sense[12]);
    Bytes expected = GateRig::Flat(rig.lib.ring.Data(), pieces);
    if (model.Decode(cdb)) {
        Check(outcome == model.Answer(cdb, total), "READ and WRITE are answered as the model does");
        expected = GateRig::Flat(memory.data(), pieces);
        const uint64_t bytes = model.blocks * kBlock;
        if (outcome == 0) {
            uint8_t* const place = model.disk.data() + model.lba * kBlock;
            if (model.write)
                std::copy_n(expected.begin(), bytes, place);
            if (!model.write || bytes == 0)
                std::fill(std::copy_n(place, bytes, expected.begin()), expected.end(), 0);
        }
        // The kernel takes no length of zero.
        Check(outcome != 0 || model.write || bytes == 0 || answer->readLength == bytes,
              "READ states its true length");
    } else if (outcome == 0) {
        std::fill(expected.begin() + answer->readLength.value_or(0), expected.end(), 0);
    } else {
        Check(answer->status == 2 && (cdb[0] < 0xC0 || outcome == 0x02052000),
              "others are GOOD or CHECK CONDITION, the vendor's unknown");
    }
    const uint8_t* from = expected.data();
    for (const auto& [offset, length] : pieces)
        std::copy_n(std::exchange(from, from + length), length, memory.data() + offset);
    Check(std::memcmp(memory.data(), rig.lib.ring.Data(), memory.size()) == 0,
          "the buffers hold what they must, and the rest is untouched");
}

void Try(Input input) {
    testing::GTEST_FLAG(throw_on_failure) = true;  // the ring's model checks too
    static GateRig rig;                            // its memory is large
    LunDataConfig config;
    config.name = "fuzz";
    config.sizeBytes = kBlocks * kBlock;
    const auto made = MakeLunData(config, *MoScsiSrvLIO::Instance());
    rig.Open(kBlocks, made.data.get());

    Model model;
    while (!input.Empty())
        RunOne(input, rig, model);

    // What the commands read and wrote was the LUN's whole content.
    const Bytes all = {0x28, 0, 0, 0, 0, 0, 0, kBlocks >> 8, kBlocks & 0xFF, 0};
    Check(rig.Answer(all, {{0, kBlocks * kBlock}}).has_value() &&
              std::equal(model.disk.begin(), model.disk.end(), rig.lib.ring.Data()),
          "the LUN holds what was written and nothing else");
    rig.handler.reset();
}
