// SCSI commands of a device: which are handled and how, the data path, INQUIRY.

#include <list>
#include <numeric>
#include <optional>
#include <span>

#include "tests/support/HeapProbe.h"
#include "tests/support/TcmuDevFixture.h"

using TcmuDevCommandTest = MoScsiSrvTcmuDevTest;

const Cdb kRead = {0x28, 0, 0, 0, 0, 9, 0, 0, 2};
const Cdb kWrite = {0x2A, 0, 0, 0, 0, 9, 0, 0, 2};

TEST_F(TcmuDevCommandTest, EveryOpcodeIsAnsweredByItsEmulationByTheHostOrNotAtAll) {
    const std::pair<Cdb, std::string> answers[] = {
        {{0x00}, "test_unit_ready"},
        {{0x12}, "inquiry"},
        {{0x15, 0x55}, "mode_select"},
        {{0x1A, 0x5A}, "mode_sense"},
        {{0x1B}, "start_stop"},
        {{0x25}, "read_capacity_10 2048 512"},
        {{0x9E}, "read_capacity_16 2048 512"},
        {{0x08, 0x28, 0x88, 0xA8}, "Read"},
        {{0x0A, 0x2A, 0x8A, 0xAA}, "Write"},
    };
    auto dev = Open(false);
    BStoreInfo(*dev) = {&host, &host.held};
    std::string counted = "opens:1 ";
    for (int opcode = 0; opcode < 256; ++opcode) {
        SCOPED_TRACE(opcode);
        journal.Reset(1);
        g_emulationStatus = opcode == 0x15 ? 2 : 0;  // what an emulation answers is passed on
        TestCommand command({static_cast<uint8_t>(opcode)});
        command.bytes[1] = opcode == 0x9E ? 0x10 : 0;
        const int status = dev->TcmuDevCmdHandler(&command);
        Strings events = journal.Events();
        std::erase_if(events, [](const std::string& event) { return event.ends_with("map"); });
        std::string answer;
        for (const auto& [opcodes, by] : answers)
            if (std::ranges::count(opcodes, opcode) > 0)
                answer = by;
        if (answer.empty()) {
            EXPECT_EQ(events, Strings());
            EXPECT_EQ(status, -1);
        } else if (isupper(answer[0]) != 0) {
            EXPECT_THAT(events, ElementsAre("+dev", "-dev", answer));
            EXPECT_EQ(status, -2);
            MoScsiSrvIO* const ioctx = host.held.back();
            Platform().IODone(ioctx, static_cast<long>(ioctx->length));
        } else {
            EXPECT_THAT(events, ElementsAre(answer));
            EXPECT_EQ(status, g_emulationStatus);
        }
        EXPECT_EQ(SenseOf(command), opcode == 0x15 ? 0x071234U : 0U);
        if (opcode < 255)  // which falls behind its predecessors; 0x10 is a service action too
            counted += std::to_string(opcode) + (opcode == 0x10 ? ":2 " : ":1 ");
    }
    EXPECT_EQ(Counters(*dev, true), counted + "notReady:1 notHandled:239 iosDone:8 ");
}

TEST_F(TcmuDevCommandTest, RefusedCommandsAreToldApartByBitsSenseLogAndCounter) {
    const auto check = [this](const Cdb& cdb, int status, uint32_t sense, const Strings& events,
                              const std::string& counted, bool lunKnown = true) {
        SCOPED_TRACE(counted);
        auto dev = Open(false);
        std::optional<TestCommand> command;
        int answer = 0;
        for (const bool known : {!lunKnown, lunKnown}) {  // found or lost in between
            SetLun(known ? &host : nullptr, known ? &host.held : nullptr);
            journal.Reset(1);
            answer = dev->TcmuDevCmdHandler(&command.emplace(cdb));
        }
        EXPECT_EQ(answer, status);
        EXPECT_EQ(SenseOf(*command), sense);
        EXPECT_EQ(Counters(*dev, true), "opens:1 " + counted);
        EXPECT_EQ(journal.Events(), events);
        EXPECT_THAT(journal.Functions(),
                    Each("int MoScsiSrvTcmuDev::TcmuDevCmdHandler(tcmulib_cmd*)"));
        EXPECT_EQ(BStoreInfo(*dev).second, events[0] == "+map" ? &host.held : nullptr);
    };
    // These two look their LUN up, each time anew.
    const std::string unknown = lib.cfgString + " GetBStoreInfo error";
    check({0x00}, 2, 0x020401, {"+map", "-map", "[-1] tur err: " + unknown}, "0:2 notReady:1 ",
          false);
    check({0x00}, 0, 0, {"+map", "-map", "test_unit_ready"}, "0:2 notReady:1 ");
    check({0x12}, 2, 0x044400, {"+map", "-map", "[-1] inquiry err: " + unknown}, "18:2 ", false);
    check({0x12}, 0, 0, {"+map", "-map", "inquiry"}, "18:2 ");

    const std::string illegal = "[-1] illegal cmd " + lib.cfgString;
    check({0x25, 1}, 2, 0x052400, {illegal}, "37:2 illegal:2 ");
    check({0x25, 0, 0, 0, 0, 0, 0, 0, 1}, 2, 0x052400, {illegal}, "37:2 illegal:2 ");
    check({0x25, 0xFE, 0, 0, 0, 0, 0, 0, 0xFE}, 0, 0, {"read_capacity_10 2048 512"}, "37:2 ");
    const std::string notHandled = "[-1] ioerr: command not handled " + lib.cfgString;
    for (const uint8_t action : {0x30, 0x11})
        check({0x9E, action}, -1, 0, {notHandled}, "158:2 notHandled:2 ");
}

TEST_F(TcmuDevCommandTest, TransferIsDescribedToTheHostInBytesAndBuffers) {
    lib.hwBlockSize = 4096;
    auto dev = Open();
    const std::tuple<Cdb, uint64_t, uint64_t> rows[] = {
        {{0x08, 0x1F, 0x02, 0x03, 4}, 0x1F0203, 4},
        {{0x28, 0, 0xFF, 2, 3, 4, 0, 1, 2}, 0xFF020304, 0x0102},
        {{0xA8, 0, 1, 2, 3, 4, 0, 1, 0, 2}, 0x01020304, 0x010002},
        {{0x88, 0, 0, 1, 2, 3, 4, 5, 6, 7, 1, 0, 0, 2}, 0x01020304050607, 0x01000002},
        // WRITEs take bytes 7 and 8, whatever these are in their CDB.
        {{0x0A, 0, 0, 3, 4, 0, 0, 5, 6}, 3, 0x0506},
        {{0x2A, 0, 0, 0, 0, 3, 0, 5, 6}, 3, 0x0506},
        {{0xAA, 0, 0, 0, 0, 3, 0, 5, 6, 7}, 3, 0x0506},
        {{0x8A, 0, 0, 0, 0, 0, 0, 5, 6, 7, 0, 0, 0, 9}, 0x050607, 0x0506},
    };
    size_t buffers = 0;  // 0, 5, 10, 15
    for (const auto& [cdb, lba, blocks] : rows) {
        SCOPED_TRACE(+cdb[0]);
        TestCommand command(cdb, std::vector<size_t>(buffers++ % 4 * 5, 512));
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -2);
        MoScsiSrvIO* ioctx = host.held.back();
        EXPECT_EQ(ioctx->offset, lba * 4096);
        EXPECT_EQ(ioctx->length, blocks * 4096);
        ASSERT_EQ(static_cast<size_t>(ioctx->iovcnt), command.entries.size());
        EXPECT_TRUE(std::ranges::equal(std::as_bytes(std::span(ioctx->iov, command.iov_cnt)),
                                       std::as_bytes(std::span(command.entries))));
        EXPECT_EQ(manager.Ioctx_GetPriv(ioctx), dev.get());
        Platform().IODone(ioctx, static_cast<long>(ioctx->length));
    }
    EXPECT_EQ(Lent(), 0U);
}

TEST_F(TcmuDevCommandTest, CompletionBeforeTheHostReturnsIsWholeOrAMediumErrorAndOnlyOnce) {
    for (const long nbytes : {1024L, 1023L, 1025L, 0L, -1L}) {
        auto dev = Open();
        // A sanitizer sees whoever touches the command after its completion.
        auto command = std::make_unique<TestCommand>(kRead);
        lib.onComplete = [&](tcmulib_cmd*) { command.reset(); };
        MoScsiSrvIO* ioctx = nullptr;
        host.onTransfer = [&](MoScsiSrvIO* lent) {
            ioctx = lent;
            EXPECT_EQ(dev->TcmuDevIODone(ioctx, nbytes), 0);
        };
        EXPECT_EQ(dev->TcmuDevCmdHandler(command.get()), -2);
        EXPECT_EQ(Lent(), 0U);
        EXPECT_EQ(dev->TcmuDevIODone(ioctx, nbytes), 2) << "completed twice";
        // The host is called without the lock. The completion is made under it: a close could let
        // the device go meanwhile.
        const Strings whole{"done 0/000000"};
        const Strings failed{
            "[-1] " + lib.cfgString + ": ioerr off 4608 len 1024 nbytes " + std::to_string(nbytes),
            "done 2/031100"};
        EXPECT_EQ(journal.Events(), Strings({"+dev", "-dev", "Read", "+dev"}) +
                                        (nbytes == 1024 ? whole : failed) +
                                        Strings({"doorbell", "-dev", "+dev",
                                                 "[-1] " + lib.cfgString + ": ioctx " +
                                                     PrintToString(ioctx) + " not found!",
                                                 "-dev"}));
        EXPECT_EQ(Counters(*dev), nbytes == 1024 ? "opens:1 iosDone:1 unknown:1 "
                                                 : "opens:1 failed:1 unknown:1 mediumErrors:1 ");
    }
}

TEST_F(TcmuDevCommandTest, CommandsWithoutMemoryFailAndLeaveNothing) {
    auto dev = Open();
    TestCommand tooLong(kWrite, std::vector<size_t>(17, 64));
    EXPECT_EQ(dev->TcmuDevCmdHandler(&tooLong), 2);
    EXPECT_EQ(SenseOf(tooLong), 0x031100U);
    TestCommand inquiry({0x12});
    {
        const heap_probe::Fault fault(0, 1, sizeof(iovec));  // the copy of its one entry
        EXPECT_EQ(dev->TcmuDevCmdHandler(&inquiry), 2);
    }
    EXPECT_EQ(SenseOf(inquiry), 0x044400U);
    EXPECT_THAT(Errors(), ElementsAre("too many iovec 17", "no memory"));

    // Memory that runs out for the pending map, whose 541 buckets have to grow, is no different.
    journal.Reset(5, false);
    host.held.reserve(1000);
    std::list<TestCommand> commands;
    int status = -2;
    while (status == -2) {  // number 513 makes the manager's ninth slab
        TestCommand& more = commands.emplace_back(kRead);
        const heap_probe::Fault fault(0, commands.size() > 513 ? 1 : 0);
        status = dev->TcmuDevCmdHandler(&more);
    }
    EXPECT_EQ(status, 2);
    EXPECT_EQ(SenseOf(commands.back()), 0x031100U);
    EXPECT_EQ(Lent(), dev->Pending());
    for (MoScsiSrvIO* ioctx : host.held)
        EXPECT_EQ(dev->TcmuDevIODone(ioctx, 1024), 0);
    EXPECT_EQ(Lent(), 0U);
    EXPECT_EQ(Counters(*dev), "opens:1 iosDone:541 mediumErrors:2 ");
}

TEST_F(TcmuDevCommandTest, ReadAndWriteOfUpToFourEntriesTakeNothingFromTheHeap) {
    auto dev = Open();
    std::list<TestCommand> commands;
    for (size_t i = 0; i < 512; ++i)
        commands.emplace_back(i % 2 == 0 ? kRead : kWrite, std::vector<size_t>(i % 5, 512));
    host.held.reserve(512);
    const size_t before = heap_probe::t_allocations;
    journal.Reset(5, false);
    for (int round = 0; round < 3; ++round) {
        for (TestCommand& command : commands)
            dev->TcmuDevCmdHandler(&command);
        for (size_t i = 0; i < 512; ++i)
            dev->TcmuDevIODone(host.held[i * 7 % 512], 1024);
        host.held.clear();
    }
    EXPECT_EQ(heap_probe::t_allocations, before);
    EXPECT_EQ(Counters(*dev), "opens:1 iosDone:1536 ");
}

TEST_F(TcmuDevCommandTest, IdentityIsStampedWhereItBelongsHoweverTheBufferIsSplit) {
    SpoilIdentity();
    auto dev = Open();  // every construction puts the identity right
    using Sizes = std::vector<size_t>;
    const auto ask = [&](uint8_t evpd, uint8_t page, const Sizes& sizes) {
        TestCommand command({0x12, evpd, page, 0, 96}, sizes);
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), g_emulationStatus);
        return std::accumulate(command.buffers.begin(), command.buffers.end(), std::string());
    };
    std::string standard(96, 'e');
    standard.replace(8, 8, std::string("TRVX\0\0\0\0", 8));
    std::string identification = standard;
    standard.replace(16, 16, std::string("MoScsiSrv\0\0\0\0\0\0\0", 16));
    standard.replace(32, 4, std::string("1.0\0", 4));

    for (const auto& sizes : {Sizes{96}, Sizes{8, 8, 16, 4, 60}, Sizes{1, 0, 9, 3, 24}, Sizes{}}) {
        const size_t total = std::accumulate(sizes.begin(), sizes.end(), size_t{0});
        EXPECT_EQ(ask(0, 0, sizes), standard.substr(0, total));
        EXPECT_EQ(ask(0xFE, 0x83, sizes), standard.substr(0, total)) << "EVPD is bit 0";
        EXPECT_EQ(ask(1, 0x83, sizes), identification.substr(0, total));
        EXPECT_EQ(ask(1, 0x80, sizes), std::string(total, 'e'));
    }
    g_emulationStatus = 2;
    for (const uint8_t evpd : {0, 1})
        EXPECT_EQ(ask(evpd, 0x83, {96}), std::string(96, 'i')) << "a failed answer is left alone";
}
