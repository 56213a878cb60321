// What the emulation answers through the ring, to the byte, in buffers of any cut and length. Any
// other CDB comes from tests/fuzz/gate_fuzz.cpp.

#include <fstream>

#include "libtcmu/Backstore.h"
#include "libtcmu/Cdb.h"
#include "tests/support/GateRig.h"
#include "tests/support/TempDirectory.h"

Bytes Text(std::string_view text) {
    return {text.begin(), text.end()};
}

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

struct EmulationTest : testing::Test, GateRig {
    TestHost host{device.cfgString, false};

    EmulationTest() { Open(0x12345678, &host); }

    /// Sends a command with a buffer that holds `data`, cut in two.
    /// Returns: the answer, or the additional sense of ILLEGAL REQUEST.
    Bytes Run(const std::string& text, const Bytes& data = Bytes(4096, 0xEE), size_t cut = 3) {
        const size_t first = std::min(data.size(), cut);
        uint8_t* const buffer = lib.ring.Data();
        std::copy(data.begin(), data.end(), buffer);
        const auto answer = Answer(Hex(text), {{0, first}, {first, data.size() - first}}).value();
        if (answer.status == 0) {
            const size_t length = answer.readLength.value_or(0);
            EXPECT_EQ(Bytes(buffer + length, buffer + data.size()), Bytes(data.size() - length));
            return {buffer, buffer + length};
        }
        const Bytes sense(answer.sense.begin(), answer.sense.begin() + 12);
        EXPECT_EQ(answer.status, TCMU_STATUS_CHECK_CONDITION);
        EXPECT_EQ(sense, (Bytes{0x70, 0, 5, 0, 0, 0, 0, 10, 0, 0, 0, 0}));
        return {answer.sense[12], answer.sense[13]};
    }
};

const Bytes kVendor = Text("TRVX") + Bytes(4);
const std::string kCaching = "08 12 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00";
const std::string kControl = "0A 0A 02 10 00 40 00 00 FF FF 00 00";
const std::string kExceptions = "1C 0A 08 00 00 00 00 00 00 00 00 00";

TEST_F(EmulationTest, AnswersAreWhatTheStandardsSay) {
    const Bytes serial = Text(lib.serial);
    const std::pair<std::string, Bytes> cases[] = {
        {"00", {}},
        {"12 00 00 10 00", Hex("00 00 06 02 5B 00 00 02") + kVendor + Text("MoScsiSrv") + Bytes(7) +
                               Text("1.0") + Bytes(1) + Bytes(22) + Hex("00A0 0460 04C0 0960") +
                               Bytes(30)},
        {"12 01 00 10 00", Hex("00 00 0006 00 80 83 B0 B1 B2")},
        {"12 01 80 10 00", Hex("00 80 0026") + serial},
        {"12 01 83 10 00", Hex("00 83 0046 02 01 00 2E") + kVendor + serial +
                               Hex("01 03 00 10 6001405 10f9A0000111122223333 4444")},
        {"12 01 B0 10 00", Hex("00 B0 003C 00 00 0008 00000800 00000800") + Bytes(48)},
        {"12 01 B1 10 00", Hex("00 B1 003C") + Bytes(60)},
        {"12 01 B2 10 00", Hex("00 B2 0004 00 00 00 00")},
        {"1A 00 08 00 FF", Hex("17 00 10 00" + kCaching)},
        {"1A 00 9C 00 FF", Hex("0F 00 10 00" + kExceptions)},  // default values
        {"1A 00 3F 00 FF", Hex("2F 00 10 00" + kCaching + kControl + kExceptions)},
        {"5A 10 3F FF 00 00 00 10 00",
         Hex("0032 00 10 00 00 0000" + kCaching + kControl + kExceptions)},
        {"1A 00 08 00 04", Hex("17 00 10 00")},
        {"5A 00 08 00 00 00 00 00 09", Hex("001A 00 10 00 00 0000 08")},
        {"12 01 00 00 05", Hex("00 00 0006 00")},
        {"1A 00 4A 00 FF", Hex("0F 00 10 00 0A 0A") + Bytes(10)},
        {"1B 00 00 00 01", {}},
        {"1B 01 00 00 05", {}},
        {"25", Hex("12345677 00000200")},
        {"9E 10 00000000 00000000 00001000", Hex("00000000 12345677 00000200") + Bytes(20)},
    };
    for (const auto& [cdb, answer] : cases)
        for (const size_t cut : {0, 1, 9, 4096}) {
            const size_t half = answer.size() / 2;
            EXPECT_EQ(Run(cdb, Bytes(4096, 0xEE), cut), answer) << cdb;
            EXPECT_EQ(Run(cdb, Bytes(half), cut), Bytes(answer.begin(), answer.begin() + half));
        }
}

TEST_F(EmulationTest, WhatIsNotSupportedIsRefusedAndModesCannotBeChanged) {
    const std::string select6 = "15 10 00 00 ";
    const std::string select10 = "55 10 00 00 00 00 00 ";
    // A CDB, its list, and the additional sense (none: accepted).
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {select6 + "00", "", ""},
        {select6 + "04", "00 00 00 00", ""},
        {select6 + "18", "17 00 10 00" + kCaching, ""},  // as read, length and DPOFUA included
        {select6 + "18", "00 00 00 00 88" + kCaching.substr(2), ""},  // PS
        {select10 + "00 28", "0000 00 00 00 00 0000" + kCaching + kControl, ""},
        {"12 00 80 10 00", "", "2400"},  // page code without EVPD
        {"12 02 00 10 00", "", "2400"},
        {"12 03 00 10 00", "", "2400"},
        {"12 01 86 10 00", "", "2400"},
        {"1A 00 01 00 FF", "", "2400"},
        {"1A 00 08 01 FF", "", "2400"},
        {"1A 00 C8 00 FF", "", "3900"},  // saved values
        {"25 00 00 00 00 01", "", "2400"},
        {"9E 10 00 00 00 00 00 00 00 01 00 00 10 00", "", "2400"},
        {"1B 00 00 01 01", "", "2400"},
        {"1B 00 00 00 00", "", "2400"},  // stop
        {"1B 00 00 00 03", "", "2400"},  // load
        {"1B 00 00 00 11", "", "2400"},  // ACTIVE
        {"25 00 00 00 00 00 00 00 01", "", "2400"},
        {"9E 10 00 00 00 00 00 00 00 00 00 00 10 00 01", "", "2400"},
        {"15 11 00 00 04", "00 00 00 00", "2400"},  // save pages
        {"15 00 00 00 04", "00 00 00 00", "2400"},  // no page format
        {select6 + "03", "00 00 00", "1A00"},
        {select6 + "05", "00 00 00 00 08", "1A00"},
        {select10 + "04 00", std::string(2048, '0'), "2600"},
        {select6 + "18", "00 00 00 00 08 12", "1A00"},  // fewer bytes sent than announced
        {select6 + "0C", "00 00 00 08 00 00 00 00 00 00 02 00", "2600"},
        {select10 + "00 10", "0000 00 00 00 00 0008 00 00 00 00 00 00 02 00", "2600"},
        {select6 + "18", "00 00 00 00 08 12 04" + kCaching.substr(8), "2600"},  // WCE
        {select6 + "10", "00 00 00 00 0A 0A 02 10 00 40 00 00 FF FF 00 01", "2600"},
    };
    for (const auto& [cdb, list, sense] : cases)
        EXPECT_EQ(Run(cdb, Hex(list)), Hex(sense)) << cdb + ": " + list;
}

TEST_F(EmulationTest, CapacityAtItsLimits) {
    Open(0xFFFFFFFF, &host);
    EXPECT_EQ(Run("25"), Hex("FFFFFFFE 00000200"));
    Open(0x100000001, &host);
    EXPECT_EQ(Run("25"), Hex("FFFFFFFF 00000200"));
    EXPECT_EQ(Run("9E 10 00000000 00000000 00000008"), Hex("00000001 00000000"));
    for (const auto emulate : {tcmu_emulate_read_capacity_10, tcmu_emulate_read_capacity_16}) {
        Bytes cdb(16);
        Bytes sense(18);
        EXPECT_EQ(emulate(0, kBlock, cdb.data(), nullptr, 0, sense.data()), 2);
        EXPECT_EQ(sense[2] << 8 | sense[12], 0x023A);  // MEDIUM NOT PRESENT
        Bytes data(40, 0xEE);
        iovec entry{data.data(), data.size()};
        EXPECT_EQ(emulate(1, kBlock, cdb.data(), &entry, 1, sense.data()), 0);
        EXPECT_EQ(data.back(), 0);
    }
}

TEST_F(EmulationTest, TheSerialIsReadWhenAPageIsAskedFor) {
    lib.serial = "";
    EXPECT_EQ(Run("12 01 80 10 00"), Hex("00 80 0004") + Text("    "));
    EXPECT_EQ(Run("12 01 83 10 00"), Hex("00 83 000C 02 01 00 08") + kVendor);
    lib.serial = "x-7";
    EXPECT_EQ(Run("12 01 83 10 00"), Hex("00 83 0023 02 01 00 0B") + kVendor + Text("x-7") +
                                         Hex("01 03 00 10 60014057") + Bytes(12));
    lib.serial = std::string(252, 'z');
    EXPECT_EQ(Run("12 01 80 10 00").size(), 256U);
    EXPECT_EQ(Run("12 01 83 10 00").at(7), 255);
    // One that can't be read is no identity at all, where one is asked for.
    lib.serial = "unreadable";
    for (const char* cdb : {"12 01 80 10 00", "12 01 83 10 00"}) {
        const auto sense = Answer(Hex(cdb), {{0, 4096}}).value().sense;
        EXPECT_EQ(sense[2] << 16 | LoadBe16(&sense[12]), 0x044400) << cdb;
    }
    EXPECT_EQ(Run("12 01 B2 10 00"), Hex("00 B2 0004") + Bytes(4));
}

TEST(Backstore, ASerialThatIsNotSetIsToldFromOneThatCannotBeRead) {
    const TempDirectory dir;
    const auto write = [&dir](const char* file, const char* text) {
        std::filesystem::create_directories((dir.path / file).parent_path());
        std::ofstream(dir.path / file) << text;
    };
    write("uio/uio3/name", "tcm-user/7/o/MoScsiSrvTcmu/c");
    const auto backstore = BackstoreOf(dir.path / "uio", dir.path / "core", "uio3");
    EXPECT_EQ(backstore, dir.path / "core/user_7/o");
    EXPECT_EQ(BackstoreOf(dir.path / "uio", dir.path / "core", "uio4"), "");
    std::string serial;
    EXPECT_EQ(ReadSerial(backstore, serial), -ENOENT);
    const std::tuple<const char*, int, const char*> rows[] = {
        {"T10 VPD Unit Serial Number: \n", 0, ""},
        {"T10 VPD Unit Serial Number: a b\n", 0, "a b"},
        {"", -EIO, ""}};
    for (const auto& [text, result, expected] : rows) {
        serial.clear();
        write("core/user_7/o/wwn/vpd_unit_serial", text);
        EXPECT_EQ(ReadSerial(backstore, serial), result) << text;
        EXPECT_EQ(serial, expected);
    }
}
