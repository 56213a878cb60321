// What the emulation answers, to the byte. That an answer is the same however its buffers are cut
// is shown by tests/fuzz/emulation_fuzz.cpp.

#include "adapters/libtcmu/Cdb.h"
#include "tests/support/FakeLibtcmuApi.h"

Bytes Text(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct EmulationTest : testing::Test {
    FakeLibtcmuApi api;
    FakeDevice lib;
    tcmu_device dev{api, lib.Lib()};

    EmulationTest() {
        dev.blockSize = 512;
        dev.maxTransferBlocks = 0x800;
        dev.numLbas = 0x12345678;
    }

    /// Runs a command over `buffer`, in two parts of which the first is short.
    /// Returns: 0, or the additional sense; the buffer then holds what was consumed.
    int Run(const std::string& text, Bytes& buffer) {
        const size_t first = std::min<size_t>(buffer.size(), 3);
        iovec parts[] = {{buffer.data(), first}, {buffer.data() + first, buffer.size() - first}};
        Bytes sense(96, 0xDD);
        Bytes cdb = Hex(text);
        cdb.resize(16);
        const int status = Emulate(dev, cdb.data(), parts, 2, sense.data());
        buffer.resize(buffer.size() - parts[0].iov_len - parts[1].iov_len);
        if (status == 0)
            return 0;
        const uint16_t asc = LoadBe16(&sense[12]);
        const uint8_t key = asc == 0x3A00 ? 2 : 5;
        EXPECT_EQ(status, TCMU_STATUS_CHECK_CONDITION);
        sense.resize(12);
        EXPECT_EQ(sense, (Bytes{0x70, 0, key, 0, 0, 0, 0, 10, 0, 0, 0, 0}));
        return asc;
    }
    Bytes Answer(const std::string& cdb) {
        Bytes buffer(4096, 0xEE);
        EXPECT_EQ(Run(cdb, buffer), 0) << cdb;
        return buffer;
    }
};

const std::string kCaching = "08 12 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
const std::string kControl = "0A 0A 02 10 00 40 00 00 FF FF 00 00";
const std::string kExceptions = "1C 0A 08 00 00 00 00 00 00 00 00 00";

TEST_F(EmulationTest, AnswersAreWhatTheStandardsSay) {
    const Bytes serial = Text(lib.serial);
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
    for (const auto& [cdb, answer] : cases)
        EXPECT_EQ(Answer(cdb), answer) << cdb;
}

TEST_F(EmulationTest, WhatIsNotSupportedIsRefusedAndModesCannotBeChanged) {
    const std::string select6 = "15 10 00 00 ";
    const std::string select10 = "55 10 00 00 00 00 00 ";
    // A CDB, its list, and the additional sense (0: accepted).
    const std::tuple<std::string, std::string, uint16_t> cases[] = {
        {select6 + "00", "", 0},
        {select6 + "04", "00 00 00 00", 0},
        {select6 + "18", "17 00 10 00" + kCaching, 0},  // as read, length and DPOFUA included
        {select6 + "18", "00 00 00 00 88" + kCaching.substr(2), 0},  // PS
        {select10 + "00 28", "0000 00 00 00 00 0000" + kCaching + kControl, 0},
        {"12 00 80 10 00", "", 0x2400},  // page code without EVPD
        {"12 02 00 10 00", "", 0x2400},
        {"12 03 00 10 00", "", 0x2400},
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
    for (const auto& [cdb, text, sense] : cases) {
        Bytes list = Hex(text);
        EXPECT_EQ(Run(cdb, list), sense) << cdb + ": " + text;
        EXPECT_TRUE(list.empty()) << "consumed";
    }
}

TEST_F(EmulationTest, CapacityAtItsLimits) {
    dev.numLbas = 0xFFFFFFFF;
    EXPECT_EQ(Answer("25"), Hex("FFFFFFFE 00000200"));
    dev.numLbas = 0x100000001;
    EXPECT_EQ(Answer("25"), Hex("FFFFFFFF 00000200"));
    EXPECT_EQ(Answer("9E 10 00000000 00000000 00000008"), Hex("00000001 00000000"));
    dev.numLbas = 0;
    Bytes none;
    EXPECT_EQ(Run("25", none), 0x3A00);
    EXPECT_EQ(Run("9E 10 00000000 00000000 00001000", none), 0x3A00);
}

TEST_F(EmulationTest, TheSerialIsReadWhenAPageIsAskedFor) {
    lib.serial = "";
    EXPECT_EQ(Answer("12 01 80 10 00"), Hex("00 80 0004") + Text("    "));
    EXPECT_EQ(Answer("12 01 83 10 00"), Hex("00 83 000C 02 01 00 08") + Text("LIO-ORG "));
    lib.serial = "x-7";
    EXPECT_EQ(Answer("12 01 83 10 00"), Hex("00 83 0023 02 01 00 0B") + Text("LIO-ORG x-7") +
                                            Hex("01 03 00 10 60014057") + Bytes(12));
    lib.serial = std::string(252, 'z');
    EXPECT_EQ(Answer("12 01 80 10 00").size(), 256U);
    EXPECT_EQ(Answer("12 01 83 10 00").at(7), 255);
}
