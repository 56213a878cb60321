// The seam over Debian's libtcmu.so.2 (1.5.4), which comes without headers: its records and the
// functions used, declared as the library has them.
#include <sys/types.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "framework/ExceptionOf.h"
#include "libtcmu/Backstore.h"
#include "libtcmu/LibtcmuApi.h"

extern "C" {

struct tcmulib_context;
struct tcmulib_cfg_info;

struct tcmulib_handler {
    const char* name;
    const char* subtype;
    const char* cfg_desc;
    tcmulib_context* ctx;
    bool (*check_config)(const char* cfgString, char** reason);
    int (*reconfig)(LibDevice* dev, tcmulib_cfg_info* cfg);
    bool (*update_logdir)();
    int (*added)(LibDevice* dev);
    void (*removed)(LibDevice* dev);
    void* hm_private;
    void* connection;
};

tcmulib_context* tcmulib_initialize(tcmulib_handler* handlers, size_t count);
int tcmulib_get_master_fd(tcmulib_context* context);
int tcmulib_master_fd_ready(tcmulib_context* context);
void tcmulib_close(tcmulib_context* context);
void tcmulib_processing_start(LibDevice* dev);
const char* tcmu_dev_get_cfgstring(LibDevice* dev);
int tcmu_dev_get_fd(LibDevice* dev);
const char* tcmu_dev_get_uio_name(LibDevice* dev);
/// Returns: the UIO device's path, allocated; null on failure.
char* tcmu_dev_get_memory_info(LibDevice* dev, void** base, size_t* length, off_t* offset);
int tcmu_cfgfs_dev_get_attr_int(LibDevice* dev, const char* name);
uint64_t tcmu_cfgfs_dev_get_info_u64(LibDevice* dev, const char* name, int* error);
}

namespace {

struct Free {
    void operator()(void* memory) const { std::free(memory); }
};
using AllocatedText = std::unique_ptr<char, Free>;

class LibtcmuSo final : public LibtcmuApi {
  public:
    int Initialize(const std::vector<SubType>& subTypes, Callbacks callbacks) override {
        m_subTypes = subTypes;
        m_callbacks = std::move(callbacks);
        std::vector<tcmulib_handler> handlers;  // copied by the library
        for (const SubType& subType : m_subTypes) {
            tcmulib_handler handler{};
            handler.name = subType.name.c_str();
            handler.subtype = subType.name.c_str();
            handler.cfg_desc = subType.description.c_str();
            handler.check_config = CheckConfig;
            handler.reconfig = Reconfig;
            handler.added = Added;
            handler.removed = Removed;
            handlers.push_back(handler);
        }
        errno = 0;
        m_context = tcmulib_initialize(handlers.data(), handlers.size());
        if (m_context == nullptr)
            return errno != 0 ? -errno : -ENODEV;
        return 0;
    }

    int MasterFd() override { return tcmulib_get_master_fd(m_context); }
    int MasterFdReady() override { return tcmulib_master_fd_ready(m_context); }
    void Close() override { tcmulib_close(std::exchange(m_context, nullptr)); }

    std::string CfgString(LibDevice* dev) override { return Text(tcmu_dev_get_cfgstring(dev)); }
    int AttrInt(LibDevice* dev, const char* name) override {
        return tcmu_cfgfs_dev_get_attr_int(dev, name);
    }
    int InfoU64(LibDevice* dev, const char* name, uint64_t& value) override {
        int error = 0;
        value = tcmu_cfgfs_dev_get_info_u64(dev, name, &error);
        return error > 0 ? -error : error;
    }
    // The library's own call doesn't tell a serial that isn't set from one that it can't read.
    int Serial(LibDevice* dev, std::string& serial) override {
        return ReadSerial(BackstoreOf("/sys/class/uio", "/sys/kernel/config/target/core",
                                      Text(tcmu_dev_get_uio_name(dev))),
                          serial);
    }
    int Fd(LibDevice* dev) override { return tcmu_dev_get_fd(dev); }
    Memory MemoryInfo(LibDevice* dev) override {
        Memory memory;
        off_t offset = 0;
        const AllocatedText path(
            tcmu_dev_get_memory_info(dev, &memory.base, &memory.length, &offset));
        return path ? memory : Memory{};
    }
    std::string UioName(LibDevice* dev) override { return Text(tcmu_dev_get_uio_name(dev)); }
    void ProcessingStart(LibDevice* dev) override { tcmulib_processing_start(dev); }

    static LibtcmuSo& Instance() {
        static auto* const instance = new LibtcmuSo;
        return *instance;
    }

  private:
    static std::string Text(const char* text) { return text == nullptr ? "" : text; }

    // The library hands its callbacks nothing of ours, hence the one instance.
    static int Added(LibDevice* dev) { return Instance().m_callbacks.added(dev); }
    static void Removed(LibDevice* dev) { Instance().m_callbacks.removed(dev); }
    static int Reconfig(LibDevice* /*dev*/, tcmulib_cfg_info* /*cfg*/) { return -EOPNOTSUPP; }
    static bool CheckConfig(const char* cfgString, char** reason) {
        std::string why;
        bool good = false;
        // Nothing may be thrown through the library.
        if (const auto fault = ExceptionOf(
                [&] { good = Instance().m_callbacks.checkConfig(Text(cfgString), why); }))
            why = *fault;
        if (good)
            return true;
        if (reason != nullptr)
            *reason = strdup(why.c_str());  // the library frees it
        return false;
    }

    std::vector<SubType> m_subTypes;
    Callbacks m_callbacks;
    tcmulib_context* m_context = nullptr;
};

}  // namespace

LibtcmuApi& RealLibtcmuApi() {
    return LibtcmuSo::Instance();
}
