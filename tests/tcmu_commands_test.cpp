// SCSI commands of a device: which are handled and how, the data path, INQUIRY.

#include <list>
#include <map>
#include <numeric>

#include "tests/support/HeapProbe.h"
#include "tests/support/TcmuDevFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

using TcmuDevCommandTest = MoScsiSrvTcmuDevTest;
using After = MoScsiSrvTcmuDev::Stats::After;

std::vector<uint8_t> ReadOf(uint8_t blocks) {
    return {0x28, 0, 0, 0, 0, 9, 0, 0, blocks};
}
std::vector<uint8_t> WriteOf(uint8_t blocks) {
    return {0x2A, 0, 0, 0, 0, 9, 0, 0, blocks};
}

TEST_F(TcmuDevCommandTest, EveryOpcodeIsAnsweredByItsEmulationByTheHostOrNotAtAll) {
    const std::map<int, std::string> emulated{
        {0x00, "test_unit_ready"},
        {0x12, "inquiry"},
        {0x15, "mode_select"},
        {0x55, "mode_select"},
        {0x1A, "mode_sense"},
        {0x5A, "mode_sense"},
        {0x1B, "start_stop"},
        {0x25, "read_capacity_10 2048 512"},
        {0x9E, "read_capacity_16 2048 512"},
    };
    const std::map<int, std::string> transfers{{0x08, "r"}, {0x28, "r"}, {0xA8, "r"}, {0x88, "r"},
                                               {0x0A, "w"}, {0x2A, "w"}, {0xAA, "w"}, {0x8A, "w"}};
    auto dev = Open();
    uint64_t notHandled = 0;
    for (int opcode = 0; opcode < 256; ++opcode) {
        host.ops.clear();
        TheFakeEmulation().calls.clear();
        const uint64_t before = Counter(*dev, static_cast<size_t>(opcode));
        lib.emulationStatus = opcode == 0x15 ? 2 : 0;  // what an emulation answers is passed on
        TestCommand command({static_cast<uint8_t>(opcode), 0x10});
        command.bytes[1] = opcode == 0x9E ? 0x10 : 0;
        const int status = dev->TcmuDevCmdHandler(&command);
        if (const auto call = emulated.find(opcode); call != emulated.end()) {
            EXPECT_THAT(TheFakeEmulation().calls, ElementsAre(call->second)) << opcode;
            EXPECT_EQ(status, lib.emulationStatus) << opcode;
            EXPECT_EQ(command.Sense(), opcode == 0x15 ? 0x071234U : 0U) << opcode;
        } else if (const auto op = transfers.find(opcode); op != transfers.end()) {
            EXPECT_EQ(host.ops, op->second) << opcode;
            EXPECT_EQ(status, -2) << opcode;
            platform->IODone(host.held.back(), static_cast<long>(host.held.back()->length));
        } else {
            EXPECT_EQ(status, -1) << opcode;
            EXPECT_EQ(TheFakeEmulation().calls.size() + host.ops.size(), 0U) << opcode;
            ++notHandled;
        }
        EXPECT_EQ(Counter(*dev, static_cast<size_t>(opcode)), before + 1) << opcode;
        EXPECT_EQ(Counter(*dev, After::kCommandsNotHandled), notHandled);
    }
    EXPECT_EQ(Counter(*dev, After::kNotReady), 1U) << "0xFF falls behind its 255 predecessors";
    EXPECT_EQ(Counter(*dev, 0x10), 2U) << "once as an opcode, once as a service action";
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(Counter(*dev, After::kIosDone), 8U);
}

TEST_F(TcmuDevCommandTest, RefusedCommandsAreToldApartByBitsSenseLogAndCounter) {
    auto dev = Open();
    const struct {
        std::vector<uint8_t> cdb;
        int status;
        uint32_t sense;
        const char* log;
        size_t counter;
    } rows[] = {
        {{0x25, 0x01}, 2, 0x052400, "illegal cmd ", After::kIllegalRequests},
        {{0x25, 0, 0, 0, 0, 0, 0, 0, 1}, 2, 0x052400, "illegal cmd ", After::kIllegalRequests},
        {{0x9E, 0x30}, -1, 0, "ioerr: command not handled ", After::kCommandsNotHandled},
        {{0x9E, 0x11}, -1, 0, "ioerr: command not handled ", After::kCommandsNotHandled},
        {{0x35}, -1, 0, nullptr, After::kCommandsNotHandled},
    };
    for (const auto& row : rows) {
        log.Reset(1);
        const uint64_t before = Counter(*dev, row.counter);
        TestCommand command(row.cdb);
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), row.status);
        EXPECT_EQ(command.Sense(), row.sense);
        EXPECT_EQ(Counter(*dev, row.counter), before + 1);
        if (row.log == nullptr)
            EXPECT_THAT(log.Lines(), IsEmpty());
        else
            EXPECT_THAT(Errors(), ElementsAre(row.log + lib.cfgString));
    }
    TestCommand otherBits({0x25, 0xFE, 0, 0, 0, 0, 0, 0, 0xFE});
    EXPECT_EQ(dev->TcmuDevCmdHandler(&otherBits), 0);
}

TEST_F(TcmuDevCommandTest, LunIsLookedUpAnewByTestUnitReadyAndInquiry) {
    auto dev = Open(false);
    MoScsiSrvLIOTest::SetLun(lib.cfgString, nullptr, nullptr);
    TestCommand ready({0x00});
    EXPECT_EQ(dev->TcmuDevCmdHandler(&ready), 2);
    EXPECT_EQ(ready.Sense(), 0x020401U);
    EXPECT_EQ(Counter(*dev, After::kNotReady), 1U);
    TestCommand inquiry({0x12});
    EXPECT_EQ(dev->TcmuDevCmdHandler(&inquiry), 2);
    EXPECT_EQ(inquiry.Sense(), 0x044400U);
    EXPECT_EQ(Counter(*dev, After::kNotReady), 1U);
    EXPECT_THAT(Errors(), ElementsAre("tur err: " + lib.cfgString + " GetBStoreInfo error",
                                      "inquiry err: " + lib.cfgString + " GetBStoreInfo error"));
    EXPECT_EQ(log.Lines().at(0).function, "int MoScsiSrvTcmuDev::TcmuDevCmdHandler(tcmulib_cmd*)");
    EXPECT_THAT(TheFakeEmulation().calls, IsEmpty());

    MoScsiSrvLIOTest::SetLun(lib.cfgString, &host, &hostContext);
    for (const bool lookUp : {false, true}) {  // either command brings the operations
        TestCommand command({static_cast<uint8_t>(lookUp ? 0x12 : 0x00)});
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), 0);
        TestCommand read(ReadOf(1));
        EXPECT_EQ(dev->TcmuDevCmdHandler(&read), -2);
        platform->IODone(host.held.back(), 512);
        SetBStoreInfo(*dev, nullptr, nullptr);
    }
}

TEST_F(TcmuDevCommandTest, TransferBeforeTheLunIsKnownStaysPending) {
    auto dev = Open(false);
    const std::pair<MoScsiBStorOps*, void*> known[] = {
        {nullptr, nullptr}, {&host, nullptr}, {nullptr, &hostContext}};
    for (const auto& [ops, ctx] : known) {
        SetBStoreInfo(*dev, ops, ctx);
        TestCommand command(WriteOf(1));
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), 2);
        EXPECT_EQ(command.Sense(), 0x020401U);
        EXPECT_EQ(dev->Pending(), 1U);
        EXPECT_EQ(Lent(), 1U);
        dev->TcmuDevIODone(PendingContexts(*dev).at(0), 512);
    }
    EXPECT_EQ(host.ops, "");
    EXPECT_THAT(Errors(), IsEmpty());
    EXPECT_EQ(Counter(*dev, After::kNotReady), 0U);
}

TEST_F(TcmuDevCommandTest, TransferIsDescribedToTheHostInBytesAndBuffers) {
    lib.hwBlockSize = 4096;
    auto dev = Open();
    const struct {
        std::vector<uint8_t> cdb;
        uint64_t lba;
        uint64_t blocks;
    } rows[] = {
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
    const std::vector<size_t> sizes[] = {
        {}, {1, 2, 3, 4}, {7, 4096, 512, 1, 1}, std::vector<size_t>(16, 512)};
    size_t n = 0;
    for (const auto& row : rows) {
        TestCommand command(row.cdb, sizes[n++ % std::size(sizes)]);
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -2);
        EXPECT_EQ(host.context, &hostContext);
        MoScsiSrvIO* ioctx = host.held.back();
        EXPECT_EQ(ioctx->offset, row.lba * 4096) << +row.cdb[0];
        EXPECT_EQ(ioctx->length, row.blocks * 4096) << +row.cdb[0];
        ASSERT_EQ(static_cast<size_t>(ioctx->iovcnt), command.entries.size());
        for (size_t i = 0; i < command.entries.size(); ++i) {
            EXPECT_EQ(ioctx->iov[i].iov_base, command.entries[i].iov_base);
            EXPECT_EQ(ioctx->iov[i].iov_len, command.entries[i].iov_len);
        }
        EXPECT_EQ(MoIoctxMgr::Instance()->Ioctx_GetPriv(ioctx), dev.get());
        platform->IODone(ioctx, static_cast<long>(ioctx->length));
    }
    EXPECT_EQ(Lent(), 0U);
}

TEST_F(TcmuDevCommandTest, CompletionIsWholeOrAMediumErrorAndReleasesTheContextOnce) {
    auto dev = Open();
    lib.onComplete = [&, keep = lib.onComplete](const tcmu_device::Completion& completion) {
        EXPECT_FALSE(MutexIsFree(*dev)) << "a close could let the device go meanwhile";
        keep(completion);
    };
    uint64_t failed = 0;
    for (const long nbytes : {1024L, 1023L, 1025L, 0L, -1L}) {
        log.Reset(1);
        TestCommand command(ReadOf(2));
        EXPECT_EQ(dev->TcmuDevCmdHandler(&command), -2);
        MoScsiSrvIO* ioctx = host.held.back();
        EXPECT_EQ(dev->Pending(), 1U);
        EXPECT_EQ(dev->TcmuDevIODone(ioctx, nbytes), 0);
        const bool whole = nbytes == 1024;
        failed += whole ? 0 : 1;
        EXPECT_EQ(LastCompletion().cmd, &command);
        EXPECT_EQ(LastCompletion().result, whole ? 0 : 2);
        EXPECT_EQ(LastCompletion().sense, whole ? 0U : 0x031100U);
        EXPECT_EQ(Doorbells(), Completions());
        if (whole)
            EXPECT_THAT(log.Lines(), IsEmpty());
        else
            EXPECT_THAT(Errors(), ElementsAre(Format("%s: ioerr off 4608 len 1024 nbytes %ld",
                                                     lib.cfgString.c_str(), nbytes)));
        EXPECT_EQ(Counter(*dev, After::kIosDone), 1U);
        EXPECT_EQ(Counter(*dev, After::kIosFailed), failed);
        EXPECT_EQ(Counter(*dev, After::kMediumErrors), failed);
        EXPECT_EQ(dev->Pending(), 0U);
        EXPECT_EQ(Lent(), 0U);

        log.Reset(1);
        EXPECT_EQ(dev->TcmuDevIODone(ioctx, nbytes), 2) << "completed twice";
        EXPECT_THAT(Errors(), ElementsAre(Format("%s: ioctx %p not found!", lib.cfgString.c_str(),
                                                 static_cast<void*>(ioctx))));
        EXPECT_EQ(Counter(*dev, After::kUnknownCompletions), Completions());
    }
    EXPECT_EQ(Completions(), 5U);
}

TEST_F(TcmuDevCommandTest, TransferWithoutAContextIsAMediumErrorAndLeavesNothing) {
    auto dev = Open();
    TestCommand tooLong(WriteOf(1), std::vector<size_t>(17, 64));
    EXPECT_EQ(dev->TcmuDevCmdHandler(&tooLong), 2);
    EXPECT_EQ(tooLong.Sense(), 0x031100U);
    EXPECT_THAT(Errors(), ElementsAre("too many iovec 17"));

    // Memory that runs out for the pending map is no different.
    host.held.reserve(576);
    std::list<TestCommand> commands;
    size_t growth = 0;
    for (int i = 0; i < 576; ++i) {  // number 513 makes the manager's ninth slab
        TestCommand& more = commands.emplace_back(ReadOf(1));
        host.ops.clear();
        const heap_probe::Fault fault(0, i > 512 ? 1 : 0);
        const int status = dev->TcmuDevCmdHandler(&more);
        EXPECT_EQ(status, fault.Failed() != 0 ? 2 : -2);
        EXPECT_EQ(more.Sense(), fault.Failed() != 0 ? 0x031100U : 0U);
        growth += fault.Failed();
    }
    EXPECT_GT(growth, 0U) << "the map of 541 buckets has to grow";
    EXPECT_EQ(Counter(*dev, After::kMediumErrors), growth + 1);
    EXPECT_EQ(Lent(), dev->Pending());
    for (MoScsiSrvIO* ioctx : host.held)
        EXPECT_EQ(dev->TcmuDevIODone(ioctx, 512), 0);
    EXPECT_EQ(Lent(), 0U);
}

TEST_F(TcmuDevCommandTest, ReadAndWriteOfUpToFourEntriesTakeNothingFromTheHeap) {
    auto dev = Open();
    log.Reset(5);
    std::list<TestCommand> commands;
    for (size_t i = 0; i < 512; ++i)
        commands.emplace_back(i % 2 == 0 ? ReadOf(1) : WriteOf(1), std::vector<size_t>(i % 5, 512));
    MoScsiSrvIO* lent[512];
    size_t count = 0;
    host.onTransfer = [&](MoScsiSrvIO* ioctx) { lent[count++] = ioctx; };
    host.ops.reserve(2000);
    lib.onComplete = [](const tcmu_device::Completion&) {};
    const size_t before = heap_probe::Allocations();
    for (int round = 0; round < 3; ++round) {
        count = 0;
        for (TestCommand& command : commands)
            dev->TcmuDevCmdHandler(&command);
        for (size_t i = 0; i < count; ++i)
            dev->TcmuDevIODone(lent[(i * 7) % count], 512);
    }
    const size_t after = heap_probe::Allocations();
    EXPECT_EQ(count, 512U);
    EXPECT_EQ(after, before);
    EXPECT_EQ(Counter(*dev, After::kIosDone), 3 * 512U);
}

std::string Ask(MoScsiSrvTcmuDev& dev, uint8_t evpd, uint8_t page, const std::vector<size_t>& sizes,
                int expectedStatus = 0) {
    TestCommand command({0x12, evpd, page, 0, 96}, sizes);
    EXPECT_EQ(dev.TcmuDevCmdHandler(&command), expectedStatus);
    std::string data;
    for (const auto& buffer : command.buffers)
        data.append(buffer.data(), buffer.size());
    return data;
}

TEST_F(TcmuDevCommandTest, IdentityIsStampedWhereItBelongsHoweverTheBufferIsSplit) {
    lib.fill = 'e';
    SpoilIdentity();
    auto dev = Open();  // every construction puts the identity right
    std::string standard(96, 'e');
    standard.replace(8, 8, std::string("TRVX\0\0\0\0", 8));
    standard.replace(16, 16, std::string("MoScsiSrv\0\0\0\0\0\0\0", 16));
    standard.replace(32, 4, std::string("1.0\0", 4));
    std::string identification(96, 'e');
    identification.replace(8, 8, std::string("TRVX\0\0\0\0", 8));

    const std::vector<size_t> splits[] = {
        {96}, {20, 76}, {8, 8, 16, 4, 60}, {35}, {12}, {1, 0, 7, 3, 30}, {}};
    for (const auto& sizes : splits) {
        const size_t total = std::accumulate(sizes.begin(), sizes.end(), size_t{0});
        EXPECT_EQ(Ask(*dev, 0, 0, sizes), standard.substr(0, total));
        EXPECT_EQ(Ask(*dev, 0xFE, 0x83, sizes), standard.substr(0, total)) << "EVPD is bit 0";
        EXPECT_EQ(Ask(*dev, 1, 0x83, sizes), identification.substr(0, total));
        EXPECT_EQ(Ask(*dev, 1, 0x80, sizes), std::string(total, 'e'));
    }
    lib.emulationStatus = 2;
    EXPECT_EQ(Ask(*dev, 0, 0, {96}, 2), std::string(96, 'i')) << "a failed answer is left alone";
    EXPECT_EQ(Ask(*dev, 1, 0x83, {96}, 2), std::string(96, 'i'));
}

}  // namespace
