#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/data/LunData.h"
#include "tests/support/NullPlatform.h"
#include "tests/support/TempDirectory.h"
#include "util/Mutex.h"

namespace hostdata_test {

/// Takes IODone as the plug-in does: under the device's mutex, under which it also calls Abort.
class FakePlatform : public NullPlatform {
  public:
    CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) override {
        const MutexGuard device(deviceMutex);
        const MutexGuard guard(m_mutex);
        m_ends.emplace(ioctx, End{nbytes, std::this_thread::get_id()});
        m_ended.notify_all();
        return {};
    }

    struct End {
        long bytes;
        std::thread::id thread;
    };

    /// Waits for an end of the context and takes it. Throws when none comes.
    End Take(MoScsiSrvIO* ioctx) {
        const MutexGuard guard(m_mutex);
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!m_ends.contains(ioctx)) {
            if (m_ended.wait_until(m_mutex, deadline) == std::cv_status::timeout)
                throw std::runtime_error("IODone didn't come");
        }
        return m_ends.extract(ioctx).mapped();
    }
    /// The ends that wait to be taken.
    size_t Ends(MoScsiSrvIO* ioctx) {
        const MutexGuard guard(m_mutex);
        return m_ends.count(ioctx);
    }

    Mutex deviceMutex;

  private:
    Mutex m_mutex;
    std::condition_variable_any m_ended;
    std::multimap<MoScsiSrvIO*, End> m_ends MO_GUARDED_BY(m_mutex);
};

/// A context with its buffers: parts of the given lengths, one behind the other in `bytes`.
struct Context {
    Context(uint64_t offset, uint64_t length, const std::vector<size_t>& parts, char fill = 0) {
        for (const size_t part : parts)
            bytes.append(part, fill);
        char* at = bytes.data();
        for (const size_t part : parts) {
            buffers.push_back({at, part});
            at += part;
        }
        io = {buffers.data(), static_cast<int64_t>(buffers.size()), offset, length};
    }
    Context(uint64_t offset, uint64_t length, char fill = 0)
        : Context(offset, length, {length}, fill) {}

    std::string bytes;
    std::vector<iovec> buffers;
    MoScsiSrvIO io = {};
};

/// One LUN, driven as its device does it.
struct LunTest : testing::Test {
    void Make(const moscsi::data::LunDataConfig& config) {
        moscsi::data::LunDataResult made = MakeLunData(config, platform);
        ASSERT_TRUE(made.data) << made.error;
        lun = std::move(made.data);
    }
    void Begin(Context& context, bool write) {
        write ? lun->Write(lun->Context(), &context.io, 0)
              : lun->Read(lun->Context(), &context.io, 0);
    }
    size_t Ends(Context& context) { return platform.Ends(&context.io); }
    long Result(Context& context) { return platform.Take(&context.io).bytes; }
    /// With the device's mutex held: IODone from inside would never return.
    void Abort(Context& context) {
        const MutexGuard device(platform.deviceMutex);
        lun->Abort(lun->Context(), &context.io);
    }
    /// The end of one that was asked back: told, and not from inside Abort.
    void ExpectCancelled(Context& context) {
        const FakePlatform::End end = platform.Take(&context.io);
        EXPECT_EQ(end.bytes, -ECANCELED);
        EXPECT_NE(end.thread, std::this_thread::get_id());
    }

    TempDirectory directory;
    std::string path = directory.path / "data";
    FakePlatform platform;
    std::unique_ptr<moscsi::data::LunData> lun;
};

}  // namespace hostdata_test
