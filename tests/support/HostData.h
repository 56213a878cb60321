#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/MoScsiSrvPlatform.h"
#include "util/Mutex.h"

namespace hostdata_test {

/// Takes IODone as the plug-in does: under the device's mutex, under which it also calls Abort.
class FakePlatform : public MoScsiSrvPlatform {
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

    CRyError Initialize() override { return {}; }
    CRyError CreateTarget(MoScsiSrvTarget_t* /*target*/) override { return {}; }
    CRyError DeleteTarget(MoScsiSrvTarget_t* /*target*/) override { return {}; }
    CRyError CreateLun(MoScsiSrvLun_t* /*lun*/) override { return {}; }
    CRyError DeleteLun(MoScsiSrvLun_t* /*lun*/) override { return {}; }
    CRyError MapHost(MoScsiSrvLun_t* /*lun*/, MoScsiSrvHost_t* /*host*/) override { return {}; }
    CRyError UnMapHost(MoScsiSrvLun_t* /*lun*/, MoScsiSrvHost_t* /*host*/) override { return {}; }
    CRyError RegisterGetVPDCB(MoScsiSrvGetVPDCb_t /*cb*/) override { return {}; }
    CRyError Cleanup() override { return {}; }

  private:
    Mutex m_mutex;
    std::condition_variable_any m_ended;
    std::multimap<MoScsiSrvIO*, End> m_ends MO_GUARDED_BY(m_mutex);
};

/// A context with its buffers: parts of the given lengths, one behind the other in `bytes`.
struct Context {
    Context(uint64_t offset, uint64_t length, const std::vector<size_t>& parts, char fill = 0) {
        size_t total = 0;
        for (const size_t part : parts)
            total += part;
        bytes.assign(total, fill);
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

/// A directory that goes with its object.
class Directory {
  public:
    Directory() {
        std::string name = (std::filesystem::temp_directory_path() / "hostdata.XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("mkdtemp");
        m_path = name;
    }
    ~Directory() { std::filesystem::remove_all(m_path); }
    std::string File(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline void Touch(const std::string& path) {
    std::ofstream(path).put('x');
}

}  // namespace hostdata_test
