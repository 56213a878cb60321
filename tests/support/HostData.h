#pragma once

#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "host/data/FileEngine.h"
#include "host/data/LunDataParts.h"
#include "platform/MoScsiSrvPlatform.h"
#include "util/Mutex.h"

namespace hostdata_test {

constexpr std::chrono::seconds kDeadline{20};

/// Waits until `condition` holds. Returns: false when the deadline passed first.
template <typename Condition>
bool Eventually(Condition condition) {
    const auto end = std::chrono::steady_clock::now() + kDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end)
            return false;
        std::this_thread::yield();
    }
    return true;
}

/// Takes IODone as the plug-in does: under the device's mutex, under which it also calls Abort.
class FakePlatform : public MoScsiSrvPlatform {
  public:
    CRyError IODone(MoScsiSrvIO* ioctx, long nbytes) override {
        const MutexGuard device(deviceMutex);
        const MutexGuard guard(m_mutex);
        m_ends[ioctx].push_back({nbytes, std::this_thread::get_id()});
        m_ended.notify_all();
        return {};
    }

    struct End {
        long bytes;
        std::thread::id thread;
    };

    /// Waits for the context's first end. Throws when it doesn't come.
    End Wait(MoScsiSrvIO* ioctx) {
        const MutexGuard guard(m_mutex);
        const auto end = std::chrono::steady_clock::now() + kDeadline;
        while (m_ends[ioctx].empty()) {
            if (m_ended.wait_until(m_mutex, end) == std::cv_status::timeout)
                throw std::runtime_error("IODone didn't come");
        }
        return m_ends[ioctx].front();
    }

    size_t Ends(MoScsiSrvIO* ioctx) {
        const MutexGuard guard(m_mutex);
        return m_ends[ioctx].size();
    }

    void Forget(MoScsiSrvIO* ioctx) {
        const MutexGuard guard(m_mutex);
        m_ends.erase(ioctx);
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
    std::map<MoScsiSrvIO*, std::vector<End>> m_ends MO_GUARDED_BY(m_mutex);
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
    Context(const Context&) = delete;
    Context& operator=(const Context&) = delete;

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
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    std::string File(const std::string& name) const { return m_path + "/" + name; }

  private:
    std::string m_path;
};

inline void Touch(const std::string& path) {
    std::ofstream(path).put('x');
}

/// A LUN on a file whose requests go through the maker's queue.
inline std::unique_ptr<moscsi::data::LunData> MakeOver(const moscsi::data::FileQueueMaker& maker,
                                                       const moscsi::data::LunDataConfig& config,
                                                       FakePlatform& platform) {
    using namespace moscsi::data;
    std::string error;
    BackingFile file;
    auto parts = std::make_unique<LunData::Parts>(config, platform);
    if (!file.Open(config.path, config.sizeBytes, error))
        throw std::runtime_error(error);
    parts->engine = FileEngine::Make(file, config.faults.durable, parts->transfers, maker, error);
    if (!parts->engine)
        throw std::runtime_error(error);
    return std::make_unique<LunData>(std::move(parts));
}

}  // namespace hostdata_test
