#include "bench/PathRig.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/support/TestHost.h"

namespace {

constexpr uint32_t kBlock = 512;
constexpr uint64_t kLunBytes = uint64_t{64} << 20;
constexpr char kFile[] = "/dev/shm/moscsi-bench.img";

/// A host that moves nothing, and answers on the caller's thread or on one of its own.
class NothingHost : public MoScsiBStorOps {
  public:
    explicit NothingHost(bool ownThread) {
        if (ownThread)
            m_thread = std::thread([this] { Run(); });
    }
    ~NothingHost() override {
        if (!m_thread.joinable())
            return;
        {
            const MutexGuard guard(m_mutex);
            m_ended = true;
        }
        m_changed.notify_one();
        m_thread.join();
    }

    CRyError Read(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override { return Take(io); }
    CRyError Write(void* /*ctx*/, MoScsiSrvIO* io, int /*reserved*/) override { return Take(io); }
    CRyError Abort(void* /*ctx*/, MoScsiSrvIO* /*io*/) override { return CRyError::Success(); }

  private:
    static void Answer(MoScsiSrvIO* io) {
        MoScsiSrvLIO::Instance()->IODone(io, static_cast<long>(io->length));
    }
    CRyError Take(MoScsiSrvIO* io) {
        if (m_thread.joinable()) {
            const MutexGuard guard(m_mutex);
            m_taken.push_back(io);
            m_changed.notify_one();
        } else {
            Answer(io);
        }
        return CRyError::Success();
    }
    void Run() {
        std::vector<MoScsiSrvIO*> batch;
        while (true) {
            {
                const MutexGuard guard(m_mutex);
                while (m_taken.empty() && !m_ended)
                    m_changed.wait(m_mutex);
                if (m_taken.empty())
                    return;
                std::swap(batch, m_taken);
            }
            for (MoScsiSrvIO* io : batch)
                Answer(io);
            batch.clear();
        }
    }

    Mutex m_mutex;
    std::condition_variable_any m_changed;
    std::vector<MoScsiSrvIO*> m_taken MO_GUARDED_BY(m_mutex);
    bool m_ended MO_GUARDED_BY(m_mutex) = false;
    std::thread m_thread;
};

std::unique_ptr<MoScsiBStorOps> MakeEngine(Stage stage) {
    LunDataConfig config;
    config.name = "bench";
    config.sizeBytes = kLunBytes;
    if (stage != Stage::Memory) {
        config.backing = Backing::File;
        config.path = kFile;
        std::ofstream(kFile, std::ios::app).close();
        std::filesystem::resize_file(kFile, kLunBytes);
        config.engine = stage == Stage::Uring ? FileEngineChoice::Uring : FileEngineChoice::Threads;
    }
    auto made = MakeLunData(config, *MoScsiSrvLIO::Instance());
    if (made.data == nullptr)
        throw std::runtime_error(made.error);
    return std::move(made.data);
}

std::unique_ptr<MoScsiBStorOps> MakeHost(Stage stage) {
    if (stage == Stage::Handler || stage == Stage::OtherHost)
        return std::make_unique<NothingHost>(stage == Stage::OtherHost);
    return stage >= Stage::Memory ? MakeEngine(stage) : nullptr;
}

}  // namespace

/// What is asked of libtcmu for a device.
struct PathRig::Lib : LibtcmuApi {
    explicit Lib(KernelRing& kernelRing) : kernel(kernelRing) {}

    int Initialize(const std::vector<SubType>& /*types*/, Callbacks /*callbacks*/) override {
        return 0;
    }
    int MasterFd() override { return -1; }
    int MasterFdReady() override { return 0; }
    void Close() override {}
    std::string CfgString(LibDevice* /*dev*/) override { return "MoScsiSrvTcmu/bench"; }
    int AttrInt(LibDevice* /*dev*/, const char* /*name*/) override { return kBlock; }
    int InfoU64(LibDevice* /*dev*/, const char* /*name*/, uint64_t& value) override {
        value = kLunBytes;
        return 0;
    }
    int Serial(LibDevice* /*dev*/, std::string& serial) override {
        serial = "bench";
        return 0;
    }
    int Fd(LibDevice* /*dev*/) override { return kernel.DoorbellFd(); }
    Memory MemoryInfo(LibDevice* /*dev*/) override { return {kernel.Memory(), kernel.Length()}; }
    std::string UioName(LibDevice* /*dev*/) override { return "uio0"; }
    void ProcessingStart(LibDevice* /*dev*/) override {}

    KernelRing& kernel;
};

/// Behind the gate, in the place of the plug-in's handler.
struct PathRig::GateOnly : DeviceHandler {
    int Open() override { return 0; }
    int Handle(tcmulib_cmd* /*cmd*/) override { return TCMU_STATUS_GOOD; }
    void Close() override {}
    MoStatistics::Counters Counters() override { return {}; }
};

PathRig::PathRig(Stage stage)
    : m_lib(std::make_unique<Lib>(m_kernel)), m_device(*m_lib, nullptr), m_host(MakeHost(stage)) {
    if (stage == Stage::Ring)
        return;
    if (stage == Stage::Gate) {
        m_handler = std::make_unique<GateOnly>();
        m_device.blockSize = kBlock;
        m_device.numLbas = kLunBytes / kBlock;
    } else {
        MoScsiSrvLIOTest::AddLun(m_device.cfgString, m_host.get());
        m_handler = MakePluginHandler(&m_device);
    }
    if (m_handler->Open() != 0)
        throw std::runtime_error("the plug-in's device can't be opened");
    m_gate = std::make_unique<CommandGate>(m_device, *m_handler);
    m_device.completionHook = [this](RingCommand& command, int& result) {
        m_gate->Completing(command, result);
    };
}

PathRig::~PathRig() {
    if (m_handler)
        m_handler->Close();
    m_host.reset();
    remove(kFile);
}

void PathRig::Put(size_t count, bool write) {
    for (size_t i = 0; i < count; ++i) {
        const auto lba =
            static_cast<uint32_t>(i * 7919 % (kLunBytes / kTransfer) * (kTransfer / kBlock));
        const Bytes cdb = {static_cast<uint8_t>(write ? 0x2A : 0x28),
                           0,
                           static_cast<uint8_t>(lba >> 24U),
                           static_cast<uint8_t>(lba >> 16U),
                           static_cast<uint8_t>(lba >> 8U),
                           static_cast<uint8_t>(lba),
                           0,
                           0,
                           kTransfer / kBlock,
                           0};
        if (!m_kernel.Put(cdb, {{i * kTransfer, kTransfer}}))
            throw std::runtime_error("the ring is full");
    }
}

void PathRig::Reap() {
    m_kernel.Doorbells();
    for (const KernelRing::Answer& answer : m_kernel.Reap())
        if (answer.status != TCMU_STATUS_GOOD)
            throw std::runtime_error("a command failed");
    if (m_kernel.InFlight() != 0)
        throw std::runtime_error("a command wasn't answered");
}

void PathRig::Drain() {
    m_device.ring.BeginDrain();
    while (RingCommand* command = m_device.ring.Fetch()) {
        if (m_gate) {
            m_gate->Pass(*command);
        } else {
            m_device.ring.Complete(*command, TCMU_STATUS_GOOD);
            m_device.ring.RingDoorbell();
        }
    }
    m_device.ring.EndDrain();
}

void PathRig::Await() {
    while (!m_device.ring.Empty()) {
        pollfd doorbell = {m_kernel.KernelFd(), POLLIN, 0};
        poll(&doorbell, 1, 1000);
        m_kernel.Doorbells();
    }
}
