#include <gtest/gtest.h>

#include <numeric>

#include "adapters/libtcmu/Cdb.h"
#include "adapters/libtcmu/Device.h"
#include "tests/support/FakeLibtcmuApi.h"

using Bytes = std::vector<uint8_t>;

namespace {

const std::string kSerial = "host1-0f9A0000111122223333444455556666";

Bytes Text(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct Outcome {
    int status;
    uint8_t key;
    uint16_t ascAscq;
    size_t consumed;
    Bytes buffer;  ///< all entries, one after the other

    Bytes Answer() const { return {buffer.begin(), buffer.begin() + consumed}; }
};

struct EmulationTest : testing::Test {
    FakeLibtcmuApi api;
    FakeDevice lib;
    tcmu_device dev{api, lib.Lib()};
    uint64_t numLbas = 0x12345678;

    EmulationTest() {
        dev.blockSize = 512;
        dev.maxTransferBlocks = 0x800;
    }

    /// Runs a command over entries of the given lengths, each full of what was there before.
    Outcome Run(Bytes cdb, const std::vector<size_t>& split, const Bytes& data = {}) {
        Outcome outcome{};
        const size_t before = std::accumulate(split.begin(), split.end(), size_t{0});
        outcome.buffer.resize(before, 0xEE);
        std::copy(data.begin(), data.end(), outcome.buffer.begin());
        std::vector<iovec> iov;
        uint8_t* at = outcome.buffer.data();
        for (const size_t length : split) {
            iov.push_back({at, length});
            at += length;
        }
        Bytes sense(96, 0xDD);
        cdb.resize(16);

        outcome.status = Dispatch(cdb.data(), iov.data(), iov.size(), sense.data());
        size_t after = 0;
        for (const iovec& entry : iov)
            after += entry.iov_len;
        outcome.consumed = before - after;
        outcome.key = sense[2];
        outcome.ascAscq = LoadBe16(&sense[12]);
        if (outcome.status != 0) {
            EXPECT_EQ(Bytes(sense.begin(), sense.begin() + 12),
                      (Bytes{0x70, 0, outcome.key, 0, 0, 0, 0, 10, 0, 0, 0, 0}));
        }
        return outcome;
    }

    Bytes Answer(const std::string& cdb) {
        const Outcome outcome = Run(Hex(cdb), {4096});
        EXPECT_EQ(outcome.status, 0) << cdb;
        return outcome.Answer();
    }

    int Dispatch(uint8_t* cdb, iovec* iov, size_t n, uint8_t* sense) {
        const uint8_t code = cdb[0];
        return code == 0x00                   ? tcmu_emulate_test_unit_ready(cdb, iov, n, sense)
               : code == 0x12                 ? tcmu_emulate_inquiry(&dev, cdb, iov, n, sense)
               : code == 0x15 || code == 0x55 ? tcmu_emulate_mode_select(cdb, iov, n, sense)
               : code == 0x1A || code == 0x5A ? tcmu_emulate_mode_sense(cdb, iov, n, sense)
               : code == 0x1B                 ? tcmu_emulate_start_stop(&dev, cdb, sense)
               : code == 0x25 ? tcmu_emulate_read_capacity_10(numLbas, 512, cdb, iov, n, sense)
                              : tcmu_emulate_read_capacity_16(numLbas, 512, cdb, iov, n, sense);
    }
};

const std::string kCaching = "08 12 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
const std::string kControl = "0A 0A 02 10 00 40 00 00 FF FF 00 00";
const std::string kExceptions = "1C 0A 08 00 00 00 00 00 00 00 00 00";

TEST_F(EmulationTest, AnswersAreWhatTheStandardsSay) {
    const Bytes serial = Text(kSerial);
    const std::pair<std::string, Bytes> cases[] = {
        {"00", {}},
        {"12 00 00 10 00", Hex("00 00 06 02 5B 00 00 02") + Text("LIO-ORG TCMU device     1.0 ") +
                               Bytes(22) + Hex("00A0 0460 04C0 0960") + Bytes(30)},
        {"12 01 00 10 00", Hex("00 00 0006 00 80 83 B0 B1 B2")},
        {"12 01 80 10 00", Hex("00 80 0026") + serial},
        {"12 01 83 10 00", Hex("00 83 0046 02 01 00 2E") + Text("LIO-ORG ") + serial +
                               Hex("01 03 00 10 6001405 10f9A0000111122223333 4444")},
        {"12 01 B0 10 00", Hex("00 B0 003C 00 00 0008 00000800 00000800") + Bytes(48)},
        {"12 01 B1 10 00", Hex("00 B1 003C") + Bytes(60)},
        {"12 01 B2 10 00", Hex("00 B2 0004 00 00 00 00")},
        {"1A 00 08 00 FF", Hex("17 00 10 00" + kCaching)},
        {"1A 00 9C 00 FF", Hex("0F 00 10 00" + kExceptions)},  // default values
        {"1A 00 3F 00 FF", Hex("2F 00 10 00" + kCaching + kControl + kExceptions)},
        {"5A 10 3F FF 00 00 00 10 00",
         Hex("0032 00 10 00 00 0000" + kCaching + kControl + kExceptions)},
        {"1A 00 4A 00 FF", Hex("0F 00 10 00 0A 0A") + Bytes(10)},
        {"1B 00 00 00 01", {}},
        {"1B 01 00 00 05", {}},
        {"25", Hex("12345677 00000200")},
        {"9E 10 00000000 00000000 00001000", Hex("00000000 12345677 00000200") + Bytes(20)},
    };
    for (const auto& [cdb, answer] : cases) {
        SCOPED_TRACE(cdb);
        EXPECT_EQ(Answer(cdb), answer);
        // Whatever the buffers, the same bytes; behind them nothing of what was there before.
        for (const std::vector<size_t>& split :
             {std::vector<size_t>{20, 76, 300}, {1, 0, 1, 3, 400}, {7}, {}}) {
            const Outcome outcome = Run(Hex(cdb), split);
            Bytes expected = answer;
            expected.resize(outcome.buffer.size());
            EXPECT_TRUE(answer.empty() || outcome.buffer == expected);
            EXPECT_EQ(outcome.consumed, std::min(answer.size(), outcome.buffer.size()));
        }
    }
}

TEST_F(EmulationTest, AnAnswerIsCutToItsAllocationLength) {
    for (const auto& [text, at] :
         std::vector<std::pair<std::string, size_t>>{{"12 01 83 00 FF", 4},
                                                     {"1A 00 3F 00 FF", 4},
                                                     {"5A 00 3F 00 00 00 00 00 FF", 8},
                                                     {"9E 10 00000000 00000000 000000FF", 13}}) {
        const Bytes whole = Answer(text);
        for (size_t length = 0; length <= whole.size() + 2; length++) {
            SCOPED_TRACE(text + ", " + std::to_string(length));
            Bytes cdb = Hex(text);
            cdb[at] = static_cast<uint8_t>(length);
            Bytes expected = whole;
            expected.resize(std::min(length, whole.size()));
            EXPECT_EQ(Run(cdb, {5, 200}).Answer(), expected);
        }
    }
}

TEST_F(EmulationTest, WhatIsNotSupportedIsRefusedAndModesCannotBeChanged) {
    const std::string select6 = "15 10 00 00 ";
    const std::string select10 = "55 10 00 00 00 00 00 ";
    struct Case {
        std::string cdb, list;
        uint16_t ascAscq;  // 0: accepted
    };
    const std::vector<Case> cases = {
        {select6 + "00", "", 0},
        {select6 + "04", "00 00 00 00", 0},
        {select6 + "18", "17 00 10 00" + kCaching, 0},  // as read, length and DPOFUA included
        {select6 + "18", "00 00 00 00 88" + kCaching.substr(2), 0},  // PS
        {select10 + "00 28", "0000 00 00 00 00 0000" + kCaching + kControl, 0},
        {"12 00 80 10 00", "", 0x2400},  // page code without EVPD
        {"12 02 00 10 00", "", 0x2400},
        {"12 01 86 10 00", "", 0x2400},
        {"1A 00 01 00 FF", "", 0x2400},
        {"1A 00 08 01 FF", "", 0x2400},
        {"1A 00 C8 00 FF", "", 0x3900},  // saved values
        {"1B 00 00 00 00", "", 0x2400},  // stop
        {"1B 00 00 00 03", "", 0x2400},  // load
        {"1B 00 00 00 11", "", 0x2400},  // ACTIVE
        {"25 00 00 00 00 00 00 00 01", "", 0x2400},
        {"9E 10 00 00 00 00 00 00 00 00 00 00 10 00 01", "", 0x2400},
        {"15 11 00 00 04", "00 00 00 00", 0x2400},  // save pages
        {"15 00 00 00 04", "00 00 00 00", 0x2400},  // no page format
        {select6 + "03", "00 00 00", 0x1A00},
        {select6 + "18", "00 00 00 00 08 12", 0x1A00},  // fewer bytes sent than announced
        {select6 + "0C", "00 00 00 08 00 00 00 00 00 00 02 00", 0x2600},
        {select10 + "00 10", "0000 00 00 00 00 0008 00 00 00 00 00 00 02 00", 0x2600},
        {select6 + "18", "00 00 00 00 08 12 04" + kCaching.substr(8), 0x2600},  // WCE
        {select6 + "10", "00 00 00 00 0A 0A 02 10 00 40 00 00 FF FF 00 01", 0x2600},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.cdb + ": " + c.list);
        const Bytes list = Hex(c.list);
        const size_t first = std::min<size_t>(list.size(), 3);
        const Outcome outcome = Run(Hex(c.cdb), {first, list.size() - first}, list);
        EXPECT_EQ(outcome.status, c.ascAscq == 0 ? 0 : TCMU_STATUS_CHECK_CONDITION);
        EXPECT_TRUE(c.ascAscq == 0 || (outcome.key == 5 && outcome.ascAscq == c.ascAscq));
        EXPECT_EQ(outcome.buffer, list);
        EXPECT_EQ(outcome.consumed, 0U);
    }
}

TEST_F(EmulationTest, CapacityAtItsLimits) {
    numLbas = 0xFFFFFFFF;
    EXPECT_EQ(Answer("25"), Hex("FFFFFFFE 00000200"));
    numLbas = 0x100000001;
    EXPECT_EQ(Answer("25"), Hex("FFFFFFFF 00000200"));
    EXPECT_EQ(Answer("9E 10 00000000 00000000 00000008"), Hex("00000001 00000000"));
    numLbas = 0;
    for (const char* cdb : {"25", "9E 10 00000000 00000000 00001000"})
        EXPECT_EQ(Run(Hex(cdb), {32}).ascAscq, 0x3A00);
}

TEST_F(EmulationTest, TheSerialIsReadWhenAPageIsAskedFor) {
    lib.serial = "";
    EXPECT_EQ(Answer("12 01 80 10 00"), Hex("00 80 0004") + Text("    "));
    lib.serial = "x-7";
    EXPECT_EQ(Answer("12 01 83 10 00"), Hex("00 83 0023 02 01 00 0B") + Text("LIO-ORG x-7") +
                                            Hex("01 03 00 10 60014057") + Bytes(12));
    lib.serial = std::string(252, 'z');
    EXPECT_EQ(Answer("12 01 80 10 00").size(), 256U);
    EXPECT_EQ(Answer("12 01 83 10 00").at(7), 255);
}

TEST(Cdb, AddressAndLengthByGroup) {
    struct Case {
        std::string cdb;
        uint64_t lba;
        uint32_t blocks;
        size_t length;
        char kind;  // r: read, w: write
    };
    for (const Case& c : std::vector<Case>{
             {"08 FF FF FE 00 01", 0x1FFFFE, 0, 6, 'r'},
             {"0A 00 01 02 03 00", 0x000102, 3, 6, 'w'},
             {"2A FF F1 F2 F3 F4 EE A1 A2 00", 0xF1F2F3F4, 0xA1A2, 10, 'w'},
             {"AA FF F1 F2 F3 F4 A1 A2 A3 A4 EE 00", 0xF1F2F3F4, 0xA1A2A3A4, 12, 'w'},
             {"88 FF F1 F2 F3 F4 F5 F6 F7 F8 A1 A2 A3 A4", 0xF1F2F3F4F5F6F7F8, 0xA1A2A3A4, 16, 'r'},
             {"8A FF F1 F2 F3 F4 F5 F6 F7 F8 A1 A2 A3 A4", 0xF1F2F3F4F5F6F7F8, 0xA1A2A3A4, 16, 'w'},
             {"7F 11 22 33 44 55 66 18 99 99 99 99 99 99", 0, 0, 32, '-'},
             {"60 11 22 33 44 55 66 18 99 99 99 99", 0, 0, 12, '-'},
             {"FF 11 22 33 44 55 66 18 99 99", 0, 0, 10, '-'},
         }) {
        SCOPED_TRACE(c.cdb);
        Bytes cdb = Hex(c.cdb);
        cdb.resize(16);
        EXPECT_EQ(tcmu_get_lba(cdb.data()), c.lba);
        EXPECT_EQ(tcmu_get_xfer_length(cdb.data()), c.blocks);
        EXPECT_EQ(CdbLength(cdb.data()), c.length);
        EXPECT_EQ(IsRead(cdb[0]), c.kind == 'r');
        EXPECT_EQ(IsWrite(cdb[0]), c.kind == 'w');
    }
}

}  // namespace
