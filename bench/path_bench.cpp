// The data path of a user LUN over the model of the kernel's side of the ring, stage by stage: what
// a command costs until it is answered, with 1 to 4,096 in flight. Of each case the times, the heap
// allocations and the doorbells a command; with --instructions, under callgrind, the instructions.
// Only our half is measured: the model puts commands in before, and takes the answers out
// afterwards. Read the times as ratios within one run.

#include <benchmark/benchmark.h>
#include <valgrind/callgrind.h>

#include <chrono>
#include <cstring>
#include <ctime>
#include <iostream>
#include <stdexcept>

#include "bench/HeapCount.h"
#include "bench/PathRig.h"
#include "framework/LogWriters.h"
#include "util/Log.h"

namespace {

struct Case {
    const char* name;
    Stage stage;
    bool write;
};
constexpr Case kCases[] = {
    {"ring", Stage::Ring, false},
    {"gate", Stage::Gate, false},
    {"handler", Stage::Handler, false},
    {"other thread", Stage::OtherHost, false},
    {"memory", Stage::Memory, false},
    {"memory, WRITE", Stage::Memory, true},
    {"file, io_uring", Stage::Uring, false},
    {"file, io_uring, WRITE", Stage::Uring, true},
    {"file, threads", Stage::FileThreads, false},
};
constexpr size_t kInFlight[] = {1, 32, 512, 4096};

void Round(PathRig& rig, size_t count, bool write) {
    rig.Put(count, write);
    rig.Drain();
    rig.Await();
    rig.Reap();
}

/// What all threads of the process have used so far, in nanoseconds. A busy machine doesn't
/// lengthen it, as it does the time on the wall.
double ProcessorTime() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) * 1e9 + static_cast<double>(used.tv_nsec);
}

void Time(benchmark::State& state, const Case& one, size_t count) {
    try {
        PathRig rig(one.stage);
        // Memory is touched, pools are filled: by all that there can be, so that it is done once.
        Round(rig, PathRig::kMost, one.write);
        const uint64_t doorbells = rig.Doorbells();
        size_t allocations = 0;
        double used = 0;
        while (state.KeepRunning()) {
            rig.Put(count, one.write);
            const size_t allocationsBefore = HeapAllocations();
            const double usedBefore = ProcessorTime();
            const auto begin = std::chrono::steady_clock::now();
            rig.Drain();
            rig.Await();
            const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - begin;
            used += ProcessorTime() - usedBefore;
            allocations += HeapAllocations() - allocationsBefore;
            state.SetIterationTime(taken.count());
            rig.Reap();
        }
        const auto commands = static_cast<double>(state.iterations()) * static_cast<double>(count);
        state.SetItemsProcessed(static_cast<int64_t>(commands));
        state.counters["processor_ns"] = used / commands;
        state.counters["allocations"] = static_cast<double>(allocations) / commands;
        state.counters["doorbells"] = static_cast<double>(rig.Doorbells() - doorbells) / commands;
    } catch (const std::exception& error) {
        state.SkipWithError(error.what());
    }
}

/// For callgrind with --instr-atstart=no: one dump a case, named "CASE/IN FLIGHT/COMMANDS".
/// Not with io_uring: its wait stops all threads there.
void CountInstructions(const Case& one, size_t count) {
    PathRig rig(one.stage);
    Round(rig, PathRig::kMost, one.write);
    const size_t rounds = count < 32 ? 50 : 5;
    for (size_t i = 0; i < rounds; ++i) {
        rig.Put(count, one.write);
        CALLGRIND_START_INSTRUMENTATION;
        rig.Drain();
        CALLGRIND_TOGGLE_COLLECT;  // this thread's waiting is nobody's work
        rig.Await();
        CALLGRIND_TOGGLE_COLLECT;
        CALLGRIND_STOP_INSTRUMENTATION;
        rig.Reap();
    }
    const std::string name =
        std::string(one.name) + "/" + std::to_string(count) + "/" + std::to_string(rounds * count);
    CALLGRIND_DUMP_STATS_AT(name.c_str());
}

int CountAll() {
    if (RUNNING_ON_VALGRIND == 0) {
        std::cerr << "path_bench: --instructions wants callgrind (scripts/bench)" << std::endl;
        return 1;
    }
    for (const Case& one : kCases)
        if (one.stage != Stage::Uring)
            for (const size_t count : kInFlight)
                CountInstructions(one, count);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    g_ptrLogWriter = MakeStderrLogWriter(kLogError);
    if (argc == 2 && std::strcmp(argv[1], "--instructions") == 0)
        return CountAll();
    for (const Case& one : kCases)
        for (const size_t count : kInFlight)
            benchmark::RegisterBenchmark(
                (std::string(one.name) + "/" + std::to_string(count)).c_str(),
                [&one, count](benchmark::State& state) { Time(state, one, count); })
                ->UseManualTime();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return testing::Test::HasFailure() ? 1 : 0;
}
