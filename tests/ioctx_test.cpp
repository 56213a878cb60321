// The I/O context manager: what is lent, what is counted and logged, and what happens without
// memory.

#include <gmock/gmock.h>

#include <algorithm>
#include <set>

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HeapProbe.h"

using namespace testing;  // matchers

struct MoIoctxMgrTest : Test {
    using Records = std::vector<MoScsiSrvIO*>;
    using Strings = std::vector<std::string>;

    CapturingLogWriter& log = CapturingLogWriter::Installed();
    int device = 0;

    MoIoctxMgrTest() { log.Reset(6); }

    Records Take(MoIoctxMgr& manager, size_t count) {
        Records records(count);
        std::ranges::generate(records, [&] { return manager.Ioctx_Alloc(4, &device); });
        return records;
    }
    /// Every counter in its order: of slabs made, not made, deleted, not deleted; slab records
    /// lent, reserved, taken back; large ones lent, not made, taken back; unknown frees and
    /// lookups; too long; then "N:" for each number of entries that was asked of a slab.
    static std::string Counted(const MoIoctxMgr& manager) {
        const MoIoctxMgr::Stats& s = manager.GetStats();
        std::string text;
        for (const auto* counter :
             {&s.slabsCreated, &s.slabCreateErrors, &s.slabsDeleted, &s.slabDeletesRefused,
              &s.slabAllocs, &s.reserved, &s.slabFrees, &s.largeAllocs, &s.largeAllocErrors,
              &s.largeFrees, &s.unknownFrees, &s.unknownLookups, &s.tooManyIov})
            text += std::to_string(*counter) + " ";
        for (size_t i = 0; i < s.allocsByIovcnt.size(); ++i)
            if (s.allocsByIovcnt[i] != 0)
                text += std::to_string(i) + ":" + std::to_string(s.allocsByIovcnt[i]) + " ";
        return text;
    }
    static bool DeleteSlab(MoIoctxMgr& manager, MoScsiSrvIO* slab) {
        return manager.delete_slab(slab);
    }
    static Records Slabs(MoIoctxMgr& manager) { return manager.m_slabs; }
    static size_t Free(MoIoctxMgr& manager) { return manager.m_freeList.size(); }
};

TEST_F(MoIoctxMgrTest, RequestsOfEverySizeGetTheirEntriesFromTheRightPlace) {
    MoIoctxMgr manager(4);
    MoScsiSrvIO stranger{};
    Records notOnLoan = {&stranger, nullptr, nullptr};
    for (int count = 0; count <= 16; ++count) {
        MoScsiSrvIO* record = manager.Ioctx_Alloc(count, &device);
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->iovcnt, count);
        for (int i = 0; i < count; ++i)
            record->iov[i] = {&device, static_cast<size_t>(count)};
        EXPECT_EQ(manager.Ioctx_GetPriv(record), &device);
        EXPECT_EQ(manager.InUse(), 1U);
        manager.Ioctx_Free(record);
        EXPECT_EQ(manager.InUse(), 0U);
        if (count <= 4)
            notOnLoan[2] = record;
    }
    EXPECT_EQ(log.Texts(-1), Strings());
    for (const int count : {17, 1000000})
        EXPECT_EQ(manager.Ioctx_Alloc(count, &device), nullptr);
    Strings expected{"too many iovec 17", "too many iovec 1000000"};
    for (MoScsiSrvIO* record : notOnLoan) {
        manager.Ioctx_Free(record);
        EXPECT_EQ(manager.Ioctx_GetPriv(record), nullptr);
        expected.insert(expected.end(), 2,
                        "bad ioctx " + (record == nullptr ? "(nil)" : PrintToString(record)));
    }
    EXPECT_EQ(log.Texts(-1), expected);
    EXPECT_EQ(Counted(manager), "8 0 0 0 5 0 5 12 0 12 3 3 2 0:1 1:1 2:1 3:1 4:1 ");
    EXPECT_EQ(Free(manager), 512U);
}

TEST_F(MoIoctxMgrTest, RecordsAreReusedInFirstFreedOrderAsTheyWereLeft) {
    MoIoctxMgr manager(4);
    const Records records = Take(manager, 576);
    EXPECT_EQ(manager.GetStats().slabsCreated, 9U);
    for (size_t i = 0; i < 576; ++i) {
        records[i]->offset = records[i]->iov[0].iov_len = records[i]->iov[3].iov_len = i;
        records[i]->iovcnt = 0;
        manager.Ioctx_Free(records[i]);
    }
    for (size_t i = 0; i < 576; ++i) {  // each with entries of its own
        ASSERT_EQ(manager.Ioctx_Alloc(&device), records[i]);
        EXPECT_EQ(records[i]->iovcnt, 4) << "without a count a record has all its entries";
        EXPECT_EQ(records[i]->offset, i);
        EXPECT_EQ(records[i]->iov[0].iov_len, i);
        EXPECT_EQ(records[i]->iov[3].iov_len, i);
        manager.Ioctx_Free(records[i]);
    }
}

TEST_F(MoIoctxMgrTest, MissingMemoryIsLoggedCountedAndLeavesEverythingAsItWas) {
    MoIoctxMgr manager(4);
    Records records = Take(manager, 512);
    records.reserve(2048);  // nothing but the manager allocates while memory is short
    // Of four attempts the request sees three: what only the fourth makes is for the next one.
    for (const size_t failures : {4U, 3U}) {
        log.Reset(-1);
        const heap_probe::Fault fault(0, failures,
                                      MoIoctxMgr::IOCTX_PER_SLAB * sizeof(MoScsiSrvIO));
        EXPECT_EQ(manager.Ioctx_Alloc(4, &device), nullptr);
        Strings expected(failures, "no memory!");
        expected.emplace_back("ioctx alloc error");
        EXPECT_EQ(log.Texts(-1), expected);
    }
    EXPECT_EQ(Counted(manager), "9 7 0 0 512 0 0 0 0 0 0 0 0 4:514 ");

    // Every allocation of a slab fails once, each time with the next attempt succeeding.
    for (size_t nth = 0, failed = 1; failed != 0; ++nth) {
        const Records rest = Take(manager, Free(manager));
        records.insert(records.end(), rest.begin(), rest.end());
        const uint64_t errors = manager.GetStats().slabCreateErrors;
        const heap_probe::Fault fault(nth);
        records.push_back(manager.Ioctx_Alloc(4, &device));
        failed = fault.Failed();
        EXPECT_EQ(manager.GetStats().slabCreateErrors, errors + failed);
        EXPECT_EQ(Free(manager), 63U);
        EXPECT_TRUE(failed != 0 || nth >= 4) << "records, entries, nodes and buckets at least";
    }
    EXPECT_EQ(std::set<MoScsiSrvIO*>(records.begin(), records.end()).size(), records.size());
    for (MoScsiSrvIO* record : records)
        manager.Ioctx_Free(record);
    EXPECT_EQ(Free(manager), records.size() + 63);

    // A large record: only a missing record is counted, what else is missing is only logged.
    MoScsiSrvIO* large = nullptr;
    for (size_t nth = 0; large == nullptr; ++nth) {
        log.Reset(-1);
        {
            const heap_probe::Fault fault(nth);
            large = manager.Ioctx_Alloc(7, &device);
        }
        Strings expected;
        if (nth < 2 || large == nullptr)
            expected = {nth == 0 ? "largeioalloc err 7" : "no memory"};
        EXPECT_EQ(log.Texts(-1), expected);
        EXPECT_THAT(log.Functions(), Each("MoScsiSrvIO* MoIoctxMgr::Ioctx_Alloc(int, void*)"));
        EXPECT_EQ(manager.GetStats().largeAllocErrors, 1U);
        EXPECT_EQ(manager.GetStats().largeAllocs, manager.InUse());
    }
    manager.Ioctx_Free(large);
}

TEST_F(MoIoctxMgrTest, SlabIsDeletedOnlyWhenAllItsRecordsAreFree) {
    auto manager = std::make_unique<MoIoctxMgr>(4);
    const Records slabs = Slabs(*manager);
    const Records records = Take(*manager, 64 + 11);  // the first slab and a part of the second
    for (MoScsiSrvIO* record : records)
        if (record != slabs[1] + 10)
            manager->Ioctx_Free(record);
    const auto refusal = [&](size_t slab, int record) {
        return "slab " + PrintToString(slabs[slab]) + ": ioctx " +
               PrintToString(slabs[slab] + record) + " is on busy list";
    };
    EXPECT_TRUE(DeleteSlab(*manager, slabs[2]));
    EXPECT_EQ(Free(*manager), 511U - 64);
    EXPECT_FALSE(DeleteSlab(*manager, slabs[1]));
    EXPECT_EQ(Free(*manager), 511U - 64 - 10) << "those before the busy one stay off the list";
    EXPECT_EQ(Counted(*manager), "8 0 1 1 75 0 74 0 0 0 0 0 0 4:75 ");
    EXPECT_EQ(Slabs(*manager), slabs) << "entries stay";

    // Destruction takes the lock once, says what is still on loan and frees the other slabs.
    MoScsiSrvIO* large = manager->Ioctx_Alloc(5, &device);
    manager.reset();
    EXPECT_THAT(log.Texts(-1), ElementsAre(refusal(1, 10), "ioctx in use 1", "ioctx in use 1",
                                           refusal(1, 0), refusal(2, 0)));
    EXPECT_THAT(log.Functions(), Contains("bool MoIoctxMgr::delete_slab(MoScsiSrvIO*)"));
    delete[] slabs[1]->iov;
    delete[] slabs[1];
    delete[] large->iov;
    delete large;
}

TEST_F(MoIoctxMgrTest, CapacityBelowSixteenIsTakenAsItIs) {
    // The argument, the capacity (-1: there is no record), and what is counted after requests for
    // all, none and -2 entries.
    const std::tuple<int, int, const char*> rows[] = {
        {15, 15, "8 0 0 0 3 0 3 0 0 0 0 0 0 0:1 "},
        {16, 1, "8 0 0 0 3 0 3 0 0 0 0 0 0 0:1 "},
        {-1, -1, "0 16 0 0 0 0 0 1 0 1 0 0 0 "}};  // no slabs: only "none", from the heap
    for (const auto& [argument, capacity, counted] : rows) {
        MoIoctxMgr manager(argument);
        MoScsiSrvIO* const lent[] = {manager.Ioctx_Alloc(&device), manager.Ioctx_Alloc(0, &device),
                                     manager.Ioctx_Alloc(-2, &device)};
        EXPECT_EQ(lent[0] != nullptr ? lent[0]->iovcnt : -1, capacity);
        for (MoScsiSrvIO* record : lent)
            if (record != nullptr)
                manager.Ioctx_Free(record);
        EXPECT_EQ(Counted(manager), counted);
    }
}

TEST_F(MoIoctxMgrTest, ThereIsOneManagerAndEachCallSaysWhich) {
    MoIoctxMgr* const first = MoIoctxMgr::Instance();
    EXPECT_EQ(MoIoctxMgr::Instance(), first);
    EXPECT_EQ(log.Texts(1), Strings(2, "Instance " + PrintToString(first)));
    EXPECT_EQ(first->Ioctx_Alloc(&device)->iovcnt, 4);
}
