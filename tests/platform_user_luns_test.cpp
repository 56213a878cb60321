// User LUNs: the registry in which LUN and device meet, and deletes that wait for the device.

#include <latch>
#include <thread>

#include "tcmu/MoScsiSrvTcmuDev.h"
#include "tests/support/FakeLibtcmu.h"
#include "tests/support/PlatformFixture.h"

using testing::ElementsAre;
using testing::IsEmpty;

namespace {

struct NoOps : MoScsiBStorOps {
    CRyError Read(void*, MoScsiSrvIO*, int) override { return {}; }
    CRyError Write(void*, MoScsiSrvIO*, int) override { return {}; }
    CRyError Abort(void*, MoScsiSrvIO*) override { return {}; }
};

}  // namespace

struct PlatformUserLunsTest : MoScsiSrvLIOTest {
    NoOps ops;
    MoScsiSrvLun lun = WithOps();
    const std::string key = CfgString(lun);
    tcmu_device library;
    MoScsiSrvTcmuDev device{&library};

    MoScsiSrvLun WithOps() {
        MoScsiSrvLun made = Lun(BSTOR_USER);
        made.bstoreOps = &ops;
        return made;
    }
    PlatformUserLunsTest() {
        library.cfgString = key;
        journal.Reset(5);
    }

    std::pair<MoScsiBStorOps*, void*> Known(bool expected) {
        std::pair<MoScsiBStorOps*, void*> out{&ops, this};
        EXPECT_EQ(Platform().GetBStoreInfo(key, out), expected);
        return out;
    }
    const std::pair<MoScsiBStorOps*, void*> untouched{&ops, this};
    const std::string waiting = "waiting for tcmu dev close iqn.Ab/3";
};

TEST_F(PlatformUserLunsTest, LunAndDeviceMeetInEitherOrder) {
    // The device first: an entry without a LUN, then the LUN with its device.
    ASSERT_EQ(device.TcmuDevOpen(), 0);
    EXPECT_EQ(Known(false), untouched);
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(Entry(key)->second, &device);
    EXPECT_EQ(Known(true), (std::pair<MoScsiBStorOps*, void*>{&ops, lun.bstoreCtx}));

    // A close leaves the LUN, a second create replaces its record, and a device comes back.
    device.TcmuDevClose();
    EXPECT_EQ(Entry(key)->second, nullptr);
    lun.hostWord = 55;
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(Entries(), 1U);
    EXPECT_EQ(Entry(key)->second, nullptr);
    EXPECT_EQ(Entry(key)->first.serialNum, lun.serialNum);
    EXPECT_EQ(Entry(key)->first.hostWord, 55);
    MoScsiSrvTcmuDev next(&library);
    ASSERT_EQ(next.TcmuDevOpen(), 0);
    EXPECT_EQ(Entry(key)->second, &next);
    next.TcmuDevClose();
}

TEST_F(PlatformUserLunsTest, BothHalvesOfTheOperationsMustBeKnown) {
    for (const bool withOps : {false, true}) {
        MoScsiSrvLun half = WithOps();
        (withOps ? half.bstoreCtx : reinterpret_cast<void*&>(half.bstoreOps)) = nullptr;
        ASSERT_FALSE(Platform().CreateLun(&half).IsError());
        EXPECT_EQ(Known(false), untouched);
    }
    journal.Reset(5);
    std::pair<MoScsiBStorOps*, void*> out = untouched;
    EXPECT_FALSE(Platform().GetBStoreInfo("MoScsiSrvTcmu/other", out));
    EXPECT_THAT(journal.Events(), ElementsAre("+map", "-map"));
    EXPECT_EQ(out, untouched);
}

TEST_F(PlatformUserLunsTest, ASecondDeviceOfOneStringIsRefused) {
    ASSERT_EQ(device.TcmuDevOpen(), 0);
    MoScsiSrvTcmuDev second(&library);
    journal.Reset(5);
    EXPECT_EQ(second.TcmuDevOpen(), -22);
    char text[200];
    snprintf(text, sizeof text, "tcmudev %s is already registered %p %p", key.c_str(),
             static_cast<void*>(&device), static_cast<void*>(&second));
    EXPECT_THAT(Errors(), ElementsAre(text, "RegisterTcmuDev error", "open error " + key));
    EXPECT_THAT(journal.Events()[0], "+map");
    EXPECT_THAT(journal.Events()[2], "-map");
    EXPECT_EQ(second.TcmuDevCfgString(), "");
    EXPECT_EQ(Entry(key)->second, &device);
    EXPECT_THAT(journal.Lines()[0].function,
                "bool MoScsiSrvLIO::RegisterTcmuDev(MoScsiSrvTcmuDev*)");
    journal.Reset(5);
    EXPECT_TRUE(Platform().UnRegisterTcmuDev(&device));
    EXPECT_THAT(journal.Events(), ElementsAre("+map", "-map"));
    EXPECT_FALSE(Platform().UnRegisterTcmuDev(&second));  // closed: of no string
    device.TcmuDevClose();
}

TEST_F(PlatformUserLunsTest, DeleteOfAnUnknownLunRunsNothing) {
    journal.Reset(5);
    const CRyError error = Platform().DeleteLun(&lun);
    EXPECT_EQ(error.Number(), 774);
    EXPECT_EQ(error.Message(), "/Path lun not found");
    EXPECT_THAT(journal.Events(), ElementsAre("+map", "-map"));
}

TEST_F(PlatformUserLunsTest, DeleteWaitsUntilTheDeviceHasClosed) {
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    ASSERT_EQ(device.TcmuDevOpen(), 0);
    int polls = 0;
    os_seams::onSleep = [&] {
        EXPECT_NE(Entry(key), nullptr);
        if (++polls == 3) {
            EXPECT_TRUE(Platform().UnRegisterTcmuDev(&device));
        }
    };
    journal.Reset(1);
    EXPECT_FALSE(Platform().DeleteLun(&lun).IsError());
    EXPECT_EQ(Entries(), 0U);
    Strings events = journal.Events();
    events.erase(events.begin(), std::ranges::find(events, "-cfg"));
    events.pop_back();  // the confirmation
    Strings expected{"-cfg", "+map"};
    for (int i = 0; i < 3; ++i) {
        expected.insert(expected.end(), {"-map", "[1] " + waiting, "sleep 2.0"});
        if (i == 2)
            expected.insert(expected.end(), {"+map", "-map"});  // the device's
        expected.emplace_back("+map");
    }
    expected.emplace_back("-map");
    EXPECT_EQ(events, expected);
    device.TcmuDevClose();
}

TEST_F(PlatformUserLunsTest, TwoDeletesOfOneLunBothSucceed) {
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    ASSERT_EQ(device.TcmuDevOpen(), 0);
    std::latch bothWait(2);
    os_seams::onSleep = [&] {
        bothWait.arrive_and_wait();
        Platform().UnRegisterTcmuDev(&device);
    };
    std::vector<std::thread> deletes;
    for (int i = 0; i < 2; ++i) {
        deletes.emplace_back([this] {
            MoScsiSrvLun mine = lun;
            EXPECT_FALSE(Platform().DeleteLun(&mine).IsError());
        });
    }
    for (std::thread& thread : deletes)
        thread.join();
    EXPECT_EQ(Entries(), 0U);
    EXPECT_THAT(journal.Texts(1), ElementsAre(waiting, waiting));
    device.TcmuDevClose();
}

TEST_F(PlatformUserLunsTest, DeletesOfOneLunNeverDisturbAnotherLunsDevices) {
    MoScsiSrvLun other = WithOps();
    other.path = "/Other";
    tcmu_device otherLibrary;
    otherLibrary.cfgString = CfgString(other);
    journal.Watch(nullptr, "");
    journal.Reset(-1);
    std::thread devices([&] {
        for (int i = 0; i < 200; ++i) {
            MoScsiSrvTcmuDev dev(&otherLibrary);
            EXPECT_EQ(dev.TcmuDevOpen(), 0);
            Known(false);
        }
    });
    Version() = kNew;
    for (int i = 0; i < 5; ++i) {
        MoScsiSrvLun mine = Lun(BSTOR_USER);
        EXPECT_FALSE(Platform().CreateLun(&mine).IsError());
        EXPECT_FALSE(Platform().DeleteLun(&mine).IsError());
    }
    devices.join();
    EXPECT_NE(Entry(otherLibrary.cfgString), nullptr);
    EXPECT_EQ(Entries(), 1U);
}
