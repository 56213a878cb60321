// The I/O context manager: what is lent, what is counted and logged, and what happens without
// memory.

#include <gmock/gmock.h>

#include <array>
#include <memory>
#include <set>
#include <thread>

#include "adapters/framework/FXString.h"
#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/HeapProbe.h"

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

struct MoIoctxMgrTest : testing::Test {
    using Records = std::vector<MoScsiSrvIO*>;

    CapturingLogWriter& log = CapturingLogWriter::Installed();
    int device = 0;

    MoIoctxMgrTest() { log.Reset(6); }

    std::vector<std::string> Errors() const { return log.Texts(-1); }
    static std::string Format(const char* format, const void* p) {
        std::string text;
        FXString::Format(text, format, p);
        return text;
    }
    Records Take(MoIoctxMgr& manager, size_t count) {
        Records records(count);
        for (MoScsiSrvIO*& record : records)
            record = manager.Ioctx_Alloc(4, &device);
        return records;
    }
    static void GiveBack(MoIoctxMgr& manager, const Records& records) {
        for (MoScsiSrvIO* record : records)
            manager.Ioctx_Free(record);
    }
    static bool DeleteSlab(MoIoctxMgr& manager, MoScsiSrvIO* slab) {
        return manager.delete_slab(slab);
    }
    static std::vector<MoScsiSrvIO*> Slabs(MoIoctxMgr& manager) { return manager.m_slabs; }
    static size_t Free(MoIoctxMgr& manager) { return manager.m_freeList.size(); }
};

namespace {

TEST_F(MoIoctxMgrTest, RequestsOfEverySizeGetTheirEntriesFromTheRightPlace) {
    MoIoctxMgr manager(4);
    const MoIoctxMgr::Stats& stats = manager.GetStats();
    ASSERT_EQ(Free(manager), 512U);
    for (int count = 0; count <= 16; ++count) {
        const bool slab = count <= 4;
        const size_t before = heap_probe::Allocations();
        MoScsiSrvIO* record = manager.Ioctx_Alloc(count, &device);
        EXPECT_EQ(heap_probe::Allocations() == before, slab) << count;
        ASSERT_NE(record, nullptr);
        EXPECT_EQ(record->iovcnt, count);
        EXPECT_EQ(stats.slabAllocs, slab ? count + 1U : 5U);
        EXPECT_EQ(stats.largeAllocs, slab ? 0U : count - 4U);
        EXPECT_EQ(stats.allocsByIovcnt.at(static_cast<size_t>(slab ? count : 15)), slab ? 1U : 0U);
        for (int i = 0; i < count; ++i)
            record->iov[i] = {&device, static_cast<size_t>(count)};
        EXPECT_EQ(manager.Ioctx_GetPriv(record), &device);
        EXPECT_EQ(manager.InUse(), 1U);
        manager.Ioctx_Free(record);
        EXPECT_EQ(manager.InUse(), 0U);
    }
    EXPECT_EQ(stats.slabFrees, 5U);
    EXPECT_EQ(stats.largeFrees, 12U);
    EXPECT_THAT(Errors(), IsEmpty());

    for (const int count : {17, 1000000}) {
        EXPECT_EQ(manager.Ioctx_Alloc(count, &device), nullptr);
        EXPECT_THAT(Errors(), ElementsAre("too many iovec " + std::to_string(count)));
        log.Reset(6);
    }
    EXPECT_EQ(stats.tooManyIov, 2U);
}

TEST_F(MoIoctxMgrTest, RecordsAreReusedInFirstFreedOrderAndLeftAsTheyWere) {
    MoIoctxMgr manager(3);
    MoScsiSrvIO* first = manager.Ioctx_Alloc(&device);
    MoScsiSrvIO* second = manager.Ioctx_Alloc(1, &device);
    EXPECT_EQ(first->iovcnt, 3) << "without a count a record has all its entries";
    EXPECT_EQ(second->iov, first->iov + 3) << "each record has entries of its own";
    second->offset = 7;
    second->iov[0].iov_len = 9;
    manager.Ioctx_Free(second);
    manager.Ioctx_Free(first);
    for (int i = 0; i < 510; ++i)
        ASSERT_NE(manager.Ioctx_Alloc(0, &device), second);
    ASSERT_EQ(manager.Ioctx_Alloc(&device), second);
    EXPECT_EQ(manager.Ioctx_Alloc(&device), first);
    EXPECT_EQ(second->iovcnt, 3);
    EXPECT_EQ(second->offset, 7U);
    EXPECT_EQ(second->iov[0].iov_len, 9U);
    for (MoScsiSrvIO* slab : Slabs(manager)) {
        for (int i = 0; i < MoIoctxMgr::IOCTX_PER_SLAB; ++i)
            manager.Ioctx_Free(slab + i);
    }
    EXPECT_EQ(Free(manager), 512U);
}

TEST_F(MoIoctxMgrTest, FirstFiveHundredAndTwelveAndLaterPeaksTakeNothingFromTheHeap) {
    MoIoctxMgr manager(4);
    Records records(576);
    const auto cycle = [&](size_t count) {  // lends all, then takes all back
        for (size_t i = 0; i < count; ++i)
            records[i] = manager.Ioctx_Alloc(static_cast<int>(i % 5), &records[i]);
        for (size_t i = 0; i < count; ++i) {
            EXPECT_EQ(manager.Ioctx_GetPriv(records[i]), &records[i]);
            manager.Ioctx_Free(records[i]);
        }
    };
    size_t before = heap_probe::Allocations();
    cycle(512);
    EXPECT_EQ(heap_probe::Allocations(), before);
    cycle(513);
    before = heap_probe::Allocations();
    cycle(576);
    EXPECT_EQ(heap_probe::Allocations(), before);
    EXPECT_EQ(manager.GetStats().slabsCreated, 9U);
    EXPECT_EQ(std::set<MoScsiSrvIO*>(records.begin(), records.end()).size(), 576U);
}

TEST_F(MoIoctxMgrTest, RecordsNotOnLoanAreLoggedCountedAndIgnored) {
    MoIoctxMgr manager(4);
    MoScsiSrvIO stranger{};
    MoScsiSrvIO* slab = manager.Ioctx_Alloc(4, &device);
    manager.Ioctx_Free(slab);
    for (MoScsiSrvIO* record : {slab, &stranger, static_cast<MoScsiSrvIO*>(nullptr)}) {
        log.Reset(-1);
        manager.Ioctx_Free(record);
        EXPECT_EQ(manager.Ioctx_GetPriv(record), nullptr);
        EXPECT_THAT(Errors(),
                    testing::AllOf(testing::SizeIs(2), Each(Format("bad ioctx %p", record))));
    }
    EXPECT_EQ(manager.GetStats().unknownFrees, 3U);
    EXPECT_EQ(manager.GetStats().unknownLookups, 3U);
    EXPECT_EQ(manager.GetStats().slabFrees, 1U);
    EXPECT_EQ(Free(manager), 512U);
}

TEST_F(MoIoctxMgrTest, SlabThatCannotBeMadeLeavesEverythingAsItWas) {
    MoIoctxMgr manager(4);
    Records records = Take(manager, 512);
    const size_t recordBytes = MoIoctxMgr::IOCTX_PER_SLAB * sizeof(MoScsiSrvIO);

    // Of four attempts the request sees three: what only the fourth makes is for the next one.
    for (const size_t failures : {4U, 3U}) {
        log.Reset(-1);
        const heap_probe::Fault fault(0, failures, recordBytes);
        EXPECT_EQ(manager.Ioctx_Alloc(4, &device), nullptr);
        std::vector<std::string> expected(failures, "no memory!");
        expected.emplace_back("ioctx alloc error");
        EXPECT_EQ(Errors(), expected);
    }
    EXPECT_EQ(manager.GetStats().slabCreateErrors, 7U);
    EXPECT_EQ(manager.GetStats().slabsCreated, 9U);
    EXPECT_EQ(manager.GetStats().slabAllocs, 512U);
    const Records rest = Take(manager, 64);
    records.insert(records.end(), rest.begin(), rest.end());

    // Every allocation of a slab fails once, each time with the next attempt succeeding.
    for (size_t nth = 0;; ++nth) {
        const uint64_t errors = manager.GetStats().slabCreateErrors;
        size_t failed = 0;
        MoScsiSrvIO* record = nullptr;
        {
            const heap_probe::Fault fault(nth);
            record = manager.Ioctx_Alloc(4, &device);
            failed = fault.Failed();
        }
        const Records next = Take(manager, 63);
        records.push_back(record);
        records.insert(records.end(), next.begin(), next.end());
        EXPECT_EQ(manager.GetStats().slabCreateErrors, errors + failed);
        EXPECT_EQ(Free(manager), 0U);
        if (failed == 0) {
            EXPECT_GE(nth, 4U) << "records, entries, nodes and buckets at least";
            break;
        }
    }
    EXPECT_EQ(std::set<MoScsiSrvIO*>(records.begin(), records.end()).count(nullptr), 0U);
    GiveBack(manager, records);
    EXPECT_EQ(Free(manager), records.size());
}

TEST_F(MoIoctxMgrTest, LargeRecordThatCannotBeMadeIsLoggedByWhatWasMissing) {
    MoIoctxMgr manager(4);
    for (size_t nth = 0;; ++nth) {
        log.Reset(-1);
        MoScsiSrvIO* record = nullptr;
        {
            const heap_probe::Fault fault(nth);
            record = manager.Ioctx_Alloc(7, &device);
        }
        EXPECT_EQ(manager.GetStats().largeAllocErrors, 1U) << "only a missing record is counted";
        if (record != nullptr) {
            EXPECT_GE(nth, 2U);
            manager.Ioctx_Free(record);
            break;
        }
        EXPECT_THAT(Errors(), ElementsAre(nth == 0 ? "largeioalloc err 7" : "no memory"));
        EXPECT_EQ(log.Lines()[0].function, "MoScsiSrvIO* MoIoctxMgr::Ioctx_Alloc(int, void*)");
        EXPECT_EQ(manager.InUse(), 0U);
    }
    EXPECT_EQ(manager.GetStats().largeAllocs, 1U);
}

TEST_F(MoIoctxMgrTest, SlabIsDeletedOnlyWhenAllItsRecordsAreFree) {
    auto manager = std::make_unique<MoIoctxMgr>(4);
    const std::vector<MoScsiSrvIO*> slabs = Slabs(*manager);
    const Records records = Take(*manager, 64 + 11);  // the first slab and a part of the second
    for (MoScsiSrvIO* record : records) {
        if (record != slabs[1] + 10)
            manager->Ioctx_Free(record);
    }
    const auto refusal = [&](int slab, int record) {
        return Format("slab %p:", slabs[static_cast<size_t>(slab)]) +
               Format(" ioctx %p is on busy list", slabs[static_cast<size_t>(slab)] + record);
    };
    EXPECT_TRUE(DeleteSlab(*manager, slabs[2]));
    EXPECT_EQ(Free(*manager), 511U - 64);
    EXPECT_FALSE(DeleteSlab(*manager, slabs[1]));
    EXPECT_EQ(Free(*manager), 511U - 64 - 10) << "those before the busy one stay off the list";
    EXPECT_THAT(Errors(), ElementsAre(refusal(1, 10)));
    EXPECT_EQ(manager->GetStats().slabsDeleted, 1U);
    EXPECT_EQ(manager->GetStats().slabDeletesRefused, 1U);
    EXPECT_EQ(Slabs(*manager), slabs) << "entries stay";

    // Destruction takes the lock once, says what is still on loan and frees the other slabs.
    MoScsiSrvIO* large = manager->Ioctx_Alloc(5, &device);
    log.Reset(-1);
    manager.reset();
    EXPECT_THAT(Errors(),
                ElementsAre("ioctx in use 1", "ioctx in use 1", refusal(1, 0), refusal(2, 0)));
    EXPECT_EQ(log.Lines()[3].function, "bool MoIoctxMgr::delete_slab(MoScsiSrvIO*)");
    delete[] slabs[1]->iov;
    delete[] slabs[1];
    delete[] large->iov;
    delete large;
}

TEST_F(MoIoctxMgrTest, CapacityBelowSixteenIsTakenAsItIs) {
    for (const auto& [argument, capacity, slabs] : std::vector<std::array<int, 3>>{
             {15, 15, 8}, {16, 1, 8}, {400, 1, 8}, {0, 0, 8}, {-1, 0, 0}, {INT32_MIN, 0, 0}}) {
        SCOPED_TRACE(argument);
        log.Reset(-1);
        MoIoctxMgr manager(argument);
        EXPECT_EQ(manager.GetStats().slabCreateErrors, 8U - static_cast<unsigned>(slabs));
        MoScsiSrvIO* record = manager.Ioctx_Alloc(&device);
        ASSERT_EQ(record != nullptr, slabs != 0);
        if (record != nullptr) {
            EXPECT_EQ(record->iovcnt, capacity);
            manager.Ioctx_Free(record);
        }
        MoScsiSrvIO* empty = manager.Ioctx_Alloc(0, &device);
        ASSERT_NE(empty, nullptr) << "from the heap where there are no slabs";
        manager.Ioctx_Free(empty);
        MoScsiSrvIO* negative = manager.Ioctx_Alloc(-2, &device);
        ASSERT_EQ(negative != nullptr, slabs != 0);
        if (negative != nullptr)
            manager.Ioctx_Free(negative);
        EXPECT_EQ(Errors().empty(), slabs != 0);
    }
}

TEST_F(MoIoctxMgrTest, ThereIsOneManagerAndEachCallSaysWhich) {
    MoIoctxMgr* seen[4] = {};
    std::vector<std::thread> threads;
    for (MoIoctxMgr*& slot : seen)
        threads.emplace_back([&slot] { slot = MoIoctxMgr::Instance(); });
    for (std::thread& thread : threads)
        thread.join();
    ASSERT_NE(seen[0], nullptr);
    EXPECT_THAT(seen, Each(seen[0]));
    EXPECT_THAT(log.Texts(1),
                testing::AllOf(testing::SizeIs(4), Each(Format("Instance %p", seen[0]))));
    MoScsiSrvIO* record = seen[0]->Ioctx_Alloc(&device);
    EXPECT_EQ(record->iovcnt, 4);
    seen[0]->Ioctx_Free(record);
}

}  // namespace
