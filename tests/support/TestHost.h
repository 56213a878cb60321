#pragma once

#include <atomic>
#include <condition_variable>
#include <cstring>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "platform/MoScsiSrvLIO.h"

/// Reaches the plug-in's registry.
struct MoScsiSrvLIOTest {
    static void AddLun(const std::string& cfgString, MoScsiBStorOps* ops) {
        MoScsiSrvLIO& platform = *MoScsiSrvLIO::Instance();
        platform.m_tcmuDevMapMutex.lock();
        MoScsiSrvLun& lun = platform.m_tcmuDevMap[cfgString].first;
        lun.bstoreOps = ops;
        lun.bstoreCtx = ops;
        platform.m_tcmuDevMapMutex.unlock();
    }
};

/// A host that serves one LUN from memory, on threads of its own. It can hold what it was given,
/// and gives it back on Abort if it is told to.
///
/// Thread: any.
class TestHost : public MoScsiBStorOps {
  public:
    explicit TestHost(const std::string& cfgString, int threads = 2) : data(1 << 20) {
        MoScsiSrvLIOTest::AddLun(cfgString, this);
        for (int i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { Serve(); });
    }
    ~TestHost() override {
        Release();
        {
            const MutexGuard guard(m_mutex);
            m_end = true;
        }
        m_changed.notify_all();
        for (std::thread& thread : m_threads)
            thread.join();
    }

    std::vector<uint8_t> data;
    std::atomic<bool> hold{false};
    std::atomic<bool> yields{true};  // gives held contexts back on Abort
    std::atomic<int> given{0};
    std::atomic<int> aborts{0};

    /// Serves what was held.
    void Release() {
        hold = false;
        m_changed.notify_all();
    }

    CRyError Read(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override {
        return Take({io, true});
    }
    CRyError Write(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override {
        return Take({io, false});
    }
    CRyError Abort(void* /*ctx*/, MoScsiSrvIO* /*io*/) override {
        ++aborts;
        if (yields)
            Release();
        return CRyError::Success();
    }

  private:
    struct Transfer {
        MoScsiSrvIO* io;
        bool read;
    };

    CRyError Take(Transfer transfer) {
        {
            const MutexGuard guard(m_mutex);
            m_queue.push_back(transfer);
        }
        ++given;
        m_changed.notify_all();
        return CRyError::Success();
    }

    void Serve() {
        for (;;) {
            Transfer transfer{};
            {
                const MutexGuard guard(m_mutex);
                while (!m_end && (hold || m_queue.empty()))
                    m_changed.wait_for(m_mutex, std::chrono::milliseconds(20));
                if (m_queue.empty())
                    return;
                transfer = m_queue.front();
                m_queue.pop_front();
            }
            Move(transfer);
            MoScsiSrvLIO::Instance()->IODone(transfer.io, static_cast<long>(transfer.io->length));
        }
    }

    void Move(const Transfer& transfer) {
        uint8_t* place = data.data() + transfer.io->offset;
        for (int64_t i = 0; i < transfer.io->iovcnt; ++i) {
            const iovec& entry = transfer.io->iov[i];
            if (transfer.read)
                memcpy(entry.iov_base, place, entry.iov_len);
            else
                memcpy(place, entry.iov_base, entry.iov_len);
            place += entry.iov_len;
        }
    }

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::deque<Transfer> m_queue;
    bool m_end = false;
    std::vector<std::thread> m_threads;
};
