#pragma once

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <utility>
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

/// A host that serves one LUN from memory, on threads of its own, or at once on the device's
/// without them. It can hold what it was given. Transfers beyond the memory move nothing.
class TestHost : public MoScsiBStorOps {
  public:
    explicit TestHost(const std::string& cfgString, int threads = 2) : data(1 << 20) {
        MoScsiSrvLIOTest::AddLun(cfgString, this);
        for (int i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { Serve(); });
    }
    ~TestHost() override {
        m_end = true;
        Release();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    std::vector<uint8_t> data;
    std::atomic<bool> hold{false};
    std::function<void()> inside = [] {};  ///< run in Read and Write, on the device's thread
    std::atomic<int> given{0};
    std::atomic<int> aborts{0};
    std::string last;  ///< what was given, "READ LBA+BLOCKS", by the device's thread

    /// Serves what was held.
    void Release() {
        m_mutex.lock();
        hold = false;
        m_changed.notify_all();
        m_mutex.unlock();
        while (m_threads.empty() && ServeOne()) {
        }
    }
    /// Returns: whether there was one.
    bool ServeOne() {
        m_mutex.lock();
        const auto [io, read] = m_queue.empty() ? Transfer() : m_queue.front();
        if (io != nullptr)
            m_queue.pop_front();
        m_mutex.unlock();
        if (io == nullptr)
            return false;
        uint8_t* place = data.data() + io->offset;
        for (int64_t i = 0; i < io->iovcnt && io->offset + io->length <= data.size(); ++i) {
            void* const bytes = io->iov[i].iov_base;
            memcpy(read ? bytes : place, read ? place : bytes, io->iov[i].iov_len);
            place += io->iov[i].iov_len;
        }
        MoScsiSrvLIO::Instance()->IODone(io, static_cast<long>(io->length));
        return true;
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
    using Transfer = std::pair<MoScsiSrvIO*, bool>;  // is it a READ

    CRyError Take(MoScsiSrvIO* io, bool read) {
        char text[64];
        snprintf(text, sizeof text, "%s %llX+%llX", read ? "READ" : "WRITE", io->offset / 512ULL,
                 io->length / 512ULL);
        last = text;
        {
            const MutexGuard guard(m_mutex);
            m_queue.emplace_back(io, read);
            ++given;
            m_changed.notify_all();
        }
        inside();
        if (m_threads.empty() && !hold)
            ServeOne();
        return CRyError::Success();
    }

    void Serve() {
        do {
            m_mutex.lock();
            while (!m_end && (hold || m_queue.empty()))
                m_changed.wait(m_mutex);
            m_mutex.unlock();
        } while (ServeOne() || !m_end);
    }

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<Transfer> m_queue;
    std::atomic<bool> m_end = false;
    std::vector<std::thread> m_threads;
};
