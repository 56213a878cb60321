#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <vector>

#include "framework/Mutex.h"
#include "host/data/LunData.h"
#include "tests/support/NullPlatform.h"
#include "tests/support/TempDirectory.h"

using namespace testing;  // matchers

/// Takes IODone as the plug-in does: under the device's mutex, under which it also calls Abort.
struct FakePlatform : NullPlatform {
    CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) override {
        const MutexGuard device(deviceMutex);
        const MutexGuard guard(mutex);
        ends.emplace(ioctx, nbytes);
        ended.notify_all();
        return {};
    }

    Mutex deviceMutex;
    Mutex mutex;
    std::condition_variable_any ended;
    std::multimap<MoScsiSrvIO*, long> ends MO_GUARDED_BY(mutex);
};

/// A context with its buffers: parts of the given lengths, one behind the other in `bytes`.
struct Context {
    Context(uint64_t offset, uint64_t length, const std::vector<size_t>& parts, char fill = 0) {
        for (const size_t part : parts)
            bytes.append(part, fill);
        char* at = bytes.data();
        for (const size_t part : parts)
            buffers.push_back({std::exchange(at, at + part), part});
        io = {buffers.data(), static_cast<int64_t>(buffers.size()), offset, length};
    }
    Context(uint64_t offset, uint64_t length, char fill = 0)
        : Context(offset, length, {length}, fill) {}

    std::string bytes;
    std::vector<iovec> buffers;
    MoScsiSrvIO io = {};
};

/// One LUN, driven as its device does it.
struct LunTest : Test {
    /// The end of a LUN waits for its transfers, and what failed may have lost one.
    ~LunTest() override { HasFailure() ? (void)lun.release() : lun.reset(); }

    /// Sees to it that the file is there.
    void Provide(uint64_t size) const {
        std::ofstream(path, std::ios::app).close();
        std::filesystem::resize_file(path, size);
    }
    /// Returns: what stands in the way, if anything.
    std::string Make(const LunDataConfig& config) {
        LunDataResult made = MakeLunData(config, platform);
        EXPECT_EQ(made.data == nullptr, !made.error.empty());
        lun = std::move(made.data);
        return made.error;
    }
    void Begin(Context& context, bool write) {
        write ? lun->Write(lun->Context(), &context.io, 0)
              : lun->Read(lun->Context(), &context.io, 0);
    }
    /// The ends that wait to be taken by Result.
    size_t Ends(Context& context) {
        const MutexGuard guard(platform.mutex);
        return platform.ends.count(&context.io);
    }
    /// Waits for an end of the context and takes it.
    long Result(Context& context) {
        const MutexGuard guard(platform.mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!platform.ends.contains(&context.io))
            if (platform.ended.wait_until(platform.mutex, deadline) == std::cv_status::timeout)
                throw std::runtime_error("IODone didn't come");
        return platform.ends.extract(&context.io).mapped();
    }
    /// With the device's mutex held: IODone from inside would never return.
    void Abort(Context& context) {
        const MutexGuard device(platform.deviceMutex);
        lun->Abort(lun->Context(), &context.io);
    }

    /// Waits until no other thread runs: one that goes round and round never sleeps.
    static void AwaitSleep() {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        const auto sleeps = [](const std::filesystem::directory_entry& task) {
            std::string state;
            std::getline(std::ifstream(task.path() / "stat"), state);
            return task.path().filename() == std::to_string(gettid()) ||
                   state.find(") S ") != std::string::npos;
        };
        const std::filesystem::path tasks = "/proc/self/task";
        while (!std::all_of(std::filesystem::directory_iterator(tasks), {}, sleeps))
            ASSERT_LT(std::chrono::steady_clock::now(), deadline) << "a thread is busy for good";
    }

    TempDirectory directory;
    std::string path = directory.path / "data";
    FakePlatform platform;
    std::unique_ptr<LunData> lun;
};
