#pragma once

#include <atomic>
#include <cstring>
#include <deque>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include "platform/MoScsiSrvLIO.h"

/// Reaches the plug-in's registry.
struct MoScsiSrvLIOTest {
    /// The LUN's operations are their own context; null: they aren't known.
    static void AddLun(const std::string& cfgString, MoScsiBStorOps* ops) {
        MoScsiSrvLIO& platform = *MoScsiSrvLIO::Instance();
        const MutexGuard guard(platform.m_tcmuDevMapMutex);
        MoScsiSrvLun& lun = platform.m_tcmuDevMap[cfgString].first;
        lun.bstoreOps = ops;
        lun.bstoreCtx = ops;
    }
};

/// A host that serves one LUN from memory, each transfer on a thread of its own, or at once on the
/// device's without `threads`. It can hold what it was given. Transfers beyond the memory move
/// nothing.
struct TestHost : MoScsiBStorOps {
    explicit TestHost(const std::string& cfgString, bool threads = true)
        : data(1 << 20), m_threads(threads) {
        MoScsiSrvLIOTest::AddLun(cfgString, this);
    }
    ~TestHost() override { Release(); }

    std::vector<uint8_t> data;
    std::atomic<bool> hold{false};
    std::atomic<bool> fails{false};
    std::function<void()> inside = [] {};  ///< run in Read and Write, on the device's thread
    std::atomic<int> given{0};
    std::atomic<int> aborts{0};
    std::string last;  ///< what was given, "READ LBA+BLOCKS", by the device's thread

    /// Serves what was held, on the caller's thread, which must have seen it in `given`.
    void Release() {
        hold = false;
        while (!m_held.empty())
            ServeOne();
    }
    void ServeOne() {
        m_held.front()();
        m_held.pop_front();
    }

    CRyError Read(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override {
        return Take(io, true);
    }
    CRyError Write(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override {
        return Take(io, false);
    }
    CRyError Abort(void* /*ctx*/, MoScsiSrvIO* /*io*/) override {
        ++aborts;
        return CRyError::Success();
    }

  private:
    CRyError Take(MoScsiSrvIO* io, bool read) {
        char text[64];
        snprintf(text, sizeof text, "%s %llX+%llX", read ? "READ" : "WRITE", io->offset / 512ULL,
                 io->length / 512ULL);
        last = text;
        const auto serve = [=, this] {
            uint8_t* place = data.data() + io->offset;
            for (int64_t i = 0; i < io->iovcnt && io->offset + io->length <= data.size(); ++i) {
                void* const bytes = io->iov[i].iov_base;
                memcpy(read ? bytes : place, read ? place : bytes, io->iov[i].iov_len);
                place += io->iov[i].iov_len;
            }
            MoScsiSrvLIO::Instance()->IODone(io, fails ? 0 : static_cast<long>(io->length));
        };
        if (hold)
            m_held.emplace_back(serve);
        else if (m_threads)
            m_serving.push_back(std::async(std::launch::async, serve));
        else
            serve();
        ++given;
        inside();
        return CRyError::Success();
    }

    const bool m_threads;
    std::deque<std::function<void()>> m_held;
    std::vector<std::future<void>> m_serving;
};
