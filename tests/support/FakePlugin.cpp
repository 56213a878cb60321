// A plug-in whose kernel is a directory tree (MOSCSI_CONFIGFS_ROOT). It writes one line an
// operation to FAKE_LOG, and can be told to misbehave:
//   FAKE_FAIL=OPERATION:N   the N-th call of the operation fails, its work half done
//   FAKE_THROW=OPERATION:N  the same with an exception
//   FAKE_PORTAL=TEXT        targets get this portal; empty: none
//   FAKE_AUTOMATIC=NUMBER   the first that an automatic number may come to
//   FAKE_WAIT=OPERATION     it makes FAKE_LOG.begun when its work is done, and waits for
//   FAKE_LOG.go

#include <chrono>
#include <cstdlib>
#include <map>
#include <stdexcept>
#include <thread>

#include "framework/MoStatistics.h"
#include "host/plan/Identity.h"
#include "runner/DbusService.h"
#include "tests/support/FakeConfigfs.h"
#include "tests/support/NullPlatform.h"

constexpr uint32_t kAutomatic = 0xFFFFFFFF;

static std::string Variable(const char* name, const char* fallback) {
    const char* value = getenv(name);
    return value != nullptr ? value : fallback;
}

struct FakePlatform final : NullPlatform {
    CRyError Initialize() override {
        m_service.TakeName();
        m_service.ExportHandlers({"MoScsiSrvTcmu", "moscsisrvtcmu"});
        return Done("Initialize", "");
    }
    CRyError Cleanup() override {
        m_service.GiveUpName();
        return Done("Cleanup", "");
    }

    CRyError CreateTarget(MoScsiSrvTarget_t* target) override {
        m_tree.AddTarget(target->targetName, Variable("FAKE_PORTAL", "0.0.0.0:3260"),
                         Variable("MOSCSI_TARGETCLI_CLOSED", "0") == std::string("1"));
        return Done("CreateTarget", " " + target->targetName);
    }
    CRyError DeleteTarget(MoScsiSrvTarget_t* target) override {
        m_tree.RemoveTarget(target->targetName);
        return Done("DeleteTarget", " " + target->targetName);
    }
    CRyError CreateLun(MoScsiSrvLun_t* lun) override {
        const std::string arguments =
            Text(*lun) + " " + lun->serialNum + (lun->bstoreOps != nullptr ? " served" : "");
        const std::string object = ObjectNameOf(lun->targetName, lun->path);
        const bool user = lun->bstorType == BSTOR_USER;
        const std::string place =
            user ? "moscsisrvtcmu/" + CfgStringOf(lun->targetName, lun->path) : lun->path;
        lun->serialNum = SerialOf(lun->serialNum, lun->targetName, lun->path);
        if (m_tree.ObjectDirectory(object).empty())
            m_tree.AddObject({user ? "user" : "fileio", object, place, lun->size, lun->serialNum});
        CRyError result = Done("CreateLun", arguments);
        if (result.IsError())
            return result;
        if (lun->lunNum == kAutomatic)
            for (lun->lunNum = std::stoi(Variable("FAKE_AUTOMATIC", "1"));
                 exists(m_tree.Lun(lun->targetName, lun->lunNum)) &&
                 read_symlink(m_tree.Lun(lun->targetName, lun->lunNum) / "a1b2c3").filename() !=
                     object;)
                ++lun->lunNum;
        if (!exists(m_tree.Lun(lun->targetName, lun->lunNum)))
            m_tree.AddLun(lun->targetName, lun->lunNum, object);
        return result;
    }
    CRyError DeleteLun(MoScsiSrvLun_t* lun) override {
        remove_all(m_tree.Lun(lun->targetName, lun->lunNum));
        m_tree.RemoveObject(ObjectNameOf(lun->targetName, lun->path));
        return Done("DeleteLun", Text(*lun));
    }
    CRyError MapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override {
        m_tree.Map(lun->targetName, host->initiatorName, lun->lunNum);
        return Done("MapHost", " " + host->initiatorName + Text(*lun));
    }
    CRyError UnMapHost(MoScsiSrvLun_t* lun, MoScsiSrvHost_t* host) override {
        remove_all(m_tree.Mapping(lun->targetName, host->initiatorName, lun->lunNum));
        return Done("UnMapHost", " " + host->initiatorName + Text(*lun));
    }

  private:
    static std::string Text(const MoScsiSrvLun& lun) {
        const auto number = lun.lunNum == kAutomatic ? "auto" : std::to_string(lun.lunNum);
        return " " + lun.path + " " + number;
    }
    CRyError Done(const std::string& operation, const std::string& arguments) {
        const std::string log = Variable("FAKE_LOG", "/dev/null");
        if (Variable("FAKE_WAIT", "") == operation) {
            FakeConfigfs::Write(log + ".begun", "");
            while (!std::filesystem::exists(log + ".go"))
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        std::ofstream(log, std::ios::app) << operation << arguments << '\n';
        const std::string call = operation + ":" + std::to_string(++m_calls[operation]);
        if (Variable("FAKE_THROW", "") == call)
            throw std::runtime_error(call + " threw as told");
        if (Variable("FAKE_FAIL", "") == call)
            return FXErrorUtil::ErrorErrNo(FXCodeLocation("FakePlugin", __func__, __LINE__), 774,
                                           "%s failed as told", operation.c_str());
        return {};
    }

    std::unique_ptr<MoStatistics::Registration> m_counters =
        MoStatistics::Register("fake source", [] {
            return MoStatistics::Counters{{"answers", 42}};
        });
    DbusService m_service;
    FakeConfigfs m_tree{Variable("MOSCSI_CONFIGFS_ROOT", "")};
    std::map<std::string, int> m_calls;
};

extern "C" __attribute__((visibility("default"))) void* GetMOScsiPlatformObj() {
    static auto* platform = new FakePlatform;
    return static_cast<MoScsiSrvPlatform*>(platform);
}
