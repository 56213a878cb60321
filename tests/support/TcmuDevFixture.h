#pragma once

#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "libtcmu/libtcmu.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "tests/support/PlatformFixture.h"

/// The TCMU library's device as tests script it; FakeLibtcmu.cpp stands in for libtcmu/,
/// and notes emulations, completions ("done RESULT/SENSE") and doorbells in the journal.
struct tcmu_device {
    std::string cfgString = "MoScsiSrvTcmu/fake";
    int hwBlockSize = 512;
    int64_t size = int64_t{1} << 20;

    // ---- What the plug-in told it
    uint32_t blockSize = 0;
    uint64_t numLbas = 0;
    void* priv = nullptr;

    /// Called for each completion; the command is the library's again.
    std::function<void(tcmulib_cmd*)> onComplete = [](tcmulib_cmd*) {};
};

/// What every emulation answers: its data is all 'e', or when this isn't 0 a sense of 7/0x1234.
inline int g_emulationStatus = 0;

/// Key, additional code and qualifier in one number, 0x052400 for example; 0 without a sense.
inline uint32_t SenseOf(const tcmulib_cmd& cmd) {
    const uint8_t* const sense = cmd.sense_buf;
    return static_cast<uint32_t>(sense[2] << 16 | sense[12] << 8 | sense[13]);
}

using Cdb = std::vector<uint8_t>;

/// A command as the runner gives it: a CDB and buffers of the given sizes.
struct TestCommand : tcmulib_cmd {
    uint8_t bytes[16]{};
    std::vector<struct iovec> entries;
    std::vector<std::string> buffers;

    explicit TestCommand(const Cdb& cdbBytes, const std::vector<size_t>& sizes = {512})
        : tcmulib_cmd{} {
        std::copy(cdbBytes.begin(), cdbBytes.end(), bytes);
        buffers.reserve(sizes.size());
        for (const size_t size : sizes) {
            buffers.emplace_back(size, 'i');
            entries.push_back({buffers.back().data(), size});
        }
        cdb = bytes;
        iovec = entries.data();
        iov_cnt = entries.size();
    }
    TestCommand(const TestCommand&) = delete;  // the record points into itself
};

/// A device of the fake library, whose LUN the host has made once SetLun was called.
struct MoScsiSrvTcmuDevTest : MoScsiSrvLIOTest {
    MoIoctxMgr& manager = *MoIoctxMgr::Instance();
    const size_t lentBefore = manager.InUse();
    tcmu_device lib;

    MoScsiSrvTcmuDevTest() { g_emulationStatus = 0; }

    void SetLun(MoScsiBStorOps* ops, void* ctx) {
        Registry()[lib.cfgString].first.bstoreOps = ops;
        Registry()[lib.cfgString].first.bstoreCtx = ctx;
    }
    /// Opens a device whose LUN is there; with `ready` it has seen a TEST UNIT READY. Watches its
    /// mutex as "dev".
    std::unique_ptr<MoScsiSrvTcmuDev> Open(bool ready = true) {
        SetLun(&host, &host.held);
        auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
        EXPECT_EQ(dev->TcmuDevOpen(), 0);
        TestCommand testUnitReady({0x00});
        EXPECT_EQ(ready ? dev->TcmuDevCmdHandler(&testUnitReady) : 0, 0);
        journal.Watch("dev", &dev->m_mutex);
        journal.Reset(1);
        return dev;
    }
    size_t Lent() const { return manager.InUse() - lentBefore; }

    /// The counters that aren't 0, as "NAME:N " in their order; those of opcodes by number, and
    /// only with `opcodes`.
    static std::string Counters(const MoScsiSrvTcmuDev& dev, bool opcodes = false) {
        static const char* const after[] = {"notReady", "notHandled", "illegal",     "iosDone",
                                            "failed",   "unknown",    "mediumErrors"};
        const MoScsiSrvTcmuDev::Stats& s = dev.GetStats();
        std::vector<std::pair<std::string, uint64_t>> all = {{"opens", s.opens},
                                                             {"openErrors", s.openErrors},
                                                             {"closes", s.closes},
                                                             {"closeErrors", s.closeErrors},
                                                             {"aborted", s.abortedAtClose},
                                                             {"waits", s.waitsAtClose}};
        for (size_t i = opcodes ? 0 : s.kOpcodes; i < s.kCount; ++i)
            all.emplace_back(i < s.kOpcodes ? std::to_string(i) : after[i - s.kOpcodes],
                             s.commands[i]);
        std::string text;
        for (const auto& [name, value] : all)
            if (value != 0)
                text += name + ":" + std::to_string(value) + " ";
        return text;
    }

    // ---- What is private in the device
    static std::vector<MoScsiSrvIO*> Pending(MoScsiSrvTcmuDev& dev) {
        std::vector<MoScsiSrvIO*> contexts;
        for (const auto& [ioctx, cmd] : dev.m_pendingCmds)
            contexts.push_back(ioctx);
        return contexts;
    }
    static auto& BStoreInfo(MoScsiSrvTcmuDev& dev) { return dev.m_bstoreInfo; }
    static void SpoilIdentity() {
        std::ranges::fill(MoScsiSrvTcmuDev::g_VendorID, '?');
        MoScsiSrvTcmuDev::g_ProductID[15] = '?';
        MoScsiSrvTcmuDev::g_ProductRev[3] = '?';
    }
};
