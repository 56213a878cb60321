#pragma once

#include <gmock/gmock.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "adapters/framework/FXString.h"
#include "ioctx/MoScsiSrvIoctxMgr.h"
#include "platform/MoScsiSrvLIO.h"
#include "tcmu/MoScsiSrvTcmuDev.h"
#include "tests/support/CapturingLogWriter.h"
#include "tests/support/FakeLibtcmu.h"

/// The host's operations of a LUN: keeps the contexts it is lent unless told otherwise.
struct HeldTransfers : MoScsiBStorOps {
    std::vector<MoScsiSrvIO*> held;
    std::string ops;          ///< one letter a call: r, w, a
    void* context = nullptr;  ///< of the last call
    std::function<void(MoScsiSrvIO*)> onTransfer = [this](MoScsiSrvIO* ioctx) {
        held.push_back(ioctx);
    };
    std::function<void(MoScsiSrvIO*)> onAbort = [](MoScsiSrvIO*) {};

    CRyError Read(void* ctx, MoScsiSrvIO* ioctx, int reserved) override {
        return Start('r', ctx, ioctx, reserved);
    }
    CRyError Write(void* ctx, MoScsiSrvIO* ioctx, int reserved) override {
        return Start('w', ctx, ioctx, reserved);
    }
    CRyError Abort(void* ctx, MoScsiSrvIO* ioctx) override {
        ops += 'a';
        context = ctx;
        onAbort(ioctx);
        return ignored;
    }

  private:
    const CRyError ignored = FXErrorUtil::ErrorErrNo(FXCodeLocation("host", "f", 1), 5, "ignored");

    CRyError Start(char op, void* ctx, MoScsiSrvIO* ioctx, int reserved) {
        EXPECT_EQ(reserved, 0);
        ops += op;
        context = ctx;
        onTransfer(ioctx);
        return ignored;
    }
};

/// A command as the runner gives it: a CDB and buffers of the given sizes.
struct TestCommand : tcmulib_cmd {
    uint8_t bytes[16]{};
    std::vector<struct iovec> entries;
    std::vector<std::vector<char>> buffers;

    explicit TestCommand(std::vector<uint8_t> cdbBytes, const std::vector<size_t>& sizes = {512})
        : tcmulib_cmd{} {
        std::copy(cdbBytes.begin(), cdbBytes.end(), bytes);
        for (const size_t size : sizes) {
            buffers.emplace_back(size, 'i');
            entries.push_back({buffers.back().data(), size});
        }
        cdb = bytes;
        iovec = entries.data();
        iov_cnt = entries.size();
    }
    TestCommand(const TestCommand&) = delete;  // the record points into itself
    uint32_t Sense() const { return FakeSense(sense_buf); }
};

/// Reaches the registry that devices and LUNs meet in.
struct MoScsiSrvLIOTest {
    static void SetLun(const std::string& name, MoScsiBStorOps* ops, void* ctx) {
        MoScsiSrvLIO* lio = MoScsiSrvLIO::Instance();
        MutexGuard guard(lio->m_tcmuDevMapMutex);
        lio->m_tcmuDevMap[name].first.bstoreOps = ops;
        lio->m_tcmuDevMap[name].first.bstoreCtx = ctx;
    }
    static void Clear() {
        MoScsiSrvLIO* lio = MoScsiSrvLIO::Instance();
        MutexGuard guard(lio->m_tcmuDevMapMutex);
        lio->m_tcmuDevMap.clear();
    }
    /// The entry's device; `found` says whether there is an entry.
    static MoScsiSrvTcmuDev* Device(const std::string& name, bool* found = nullptr) {
        MoScsiSrvLIO* lio = MoScsiSrvLIO::Instance();
        MutexGuard guard(lio->m_tcmuDevMapMutex);
        const auto entry = lio->m_tcmuDevMap.find(name);
        if (found != nullptr)
            *found = entry != lio->m_tcmuDevMap.end();
        return entry == lio->m_tcmuDevMap.end() ? nullptr : entry->second.second;
    }
};

/// What the plug-in does instead of sleeping. A sleep that no test expects ends the program.
struct SleepHook {
    std::function<void()> instead;
    std::vector<long> seconds;
};
SleepHook& TheSleepHook();

/// A device of the fake library, its LUN's host, and the log.
struct MoScsiSrvTcmuDevTest : testing::Test {
    using Stats = MoScsiSrvTcmuDev::Stats;

    CapturingLogWriter& log = CapturingLogWriter::Installed();
    MoScsiSrvLIO* platform = MoScsiSrvLIO::Instance();
    tcmu_device lib;
    HeldTransfers host;
    int hostContext = 0;
    size_t lentBefore = MoIoctxMgr::Instance()->InUse();

    MoScsiSrvTcmuDevTest() {
        MoScsiSrvLIOTest::Clear();
        TheFakeEmulation() = {&lib, {}};
        TheSleepHook() = {};
        log.Reset(1);
    }

    std::vector<std::string> Errors() const { return log.Texts(-1); }
    size_t Lent() const { return MoIoctxMgr::Instance()->InUse() - lentBefore; }
    size_t Completions() {
        MutexGuard guard(lib.mutex);
        return lib.completions.size();
    }
    tcmu_device::Completion LastCompletion() {
        MutexGuard guard(lib.mutex);
        return lib.completions.back();
    }
    size_t Doorbells() {
        MutexGuard guard(lib.mutex);
        return lib.doorbells;
    }

    /// Opens a device whose LUN the host has made; with `ready` it has seen a TEST UNIT READY.
    std::unique_ptr<MoScsiSrvTcmuDev> Open(bool ready = true) {
        MoScsiSrvLIOTest::SetLun(lib.cfgString, &host, &hostContext);
        auto dev = std::make_unique<MoScsiSrvTcmuDev>(&lib);
        EXPECT_EQ(dev->TcmuDevOpen(), 0);
        if (ready) {
            TestCommand testUnitReady({0x00});
            EXPECT_EQ(dev->TcmuDevCmdHandler(&testUnitReady), 0);
        }
        TheFakeEmulation().calls.clear();
        log.Reset(1);
        return dev;
    }
    static uint64_t Counter(MoScsiSrvTcmuDev& dev, size_t index) {
        return dev.GetStats().commands[index];
    }

    template <typename... Args>
    static std::string Format(const char* format, Args... args) {
        std::string text;
        FXString::Format(text, format, args...);
        return text;
    }

    // ---- Private parts -----------------------------------------------------------------------
    static bool MutexIsFree(MoScsiSrvTcmuDev& dev);
    static std::vector<MoScsiSrvIO*> PendingContexts(MoScsiSrvTcmuDev& dev) {
        MutexGuard guard(dev.m_mutex);
        std::vector<MoScsiSrvIO*> contexts;
        for (const auto& [ioctx, cmd] : dev.m_pendingCmds)
            contexts.push_back(ioctx);
        return contexts;
    }
    static bool KnowsItsLun(const MoScsiSrvTcmuDev& dev) {
        return dev.m_bstoreInfo != std::pair<MoScsiBStorOps*, void*>();
    }
    static void SetBStoreInfo(MoScsiSrvTcmuDev& dev, MoScsiBStorOps* ops, void* ctx) {
        dev.m_bstoreInfo = {ops, ctx};
    }
    static void SpoilIdentity() {
        std::fill(std::begin(MoScsiSrvTcmuDev::g_VendorID), std::end(MoScsiSrvTcmuDev::g_VendorID),
                  '?');
        MoScsiSrvTcmuDev::g_ProductID[15] = '?';
        MoScsiSrvTcmuDev::g_ProductRev[3] = '?';
    }
};
