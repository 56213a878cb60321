// User LUNs: the registry in which LUN and device meet, and deletes that wait for the device.

#include "tests/support/TcmuDevFixture.h"

struct PlatformUserLunsTest : MoScsiSrvTcmuDevTest {
    MoScsiSrvLun lun = Lun(BSTOR_USER);
    const std::string key = lib.cfgString = CfgString(lun);
    MoScsiSrvTcmuDev device{&lib};

    PlatformUserLunsTest() { journal.Reset(5); }

    /// Expects the operations of `name` to be these, or not to be known.
    void ExpectKnown(const std::string& name, MoScsiBStorOps* ops, void* ctx) {
        std::pair<MoScsiBStorOps*, void*> out{nullptr, this};
        journal.Reset(5);
        EXPECT_EQ(Platform().GetBStoreInfo(name, out), ops != nullptr);
        EXPECT_EQ(out.first, ops);
        EXPECT_EQ(out.second, ops != nullptr ? ctx : this) << "it is left alone";
        EXPECT_THAT(journal.Events(), ElementsAre("+map", "-map"));
    }
};

TEST_F(PlatformUserLunsTest, LunAndDeviceMeetInEitherOrder) {
    // The device first: an entry without a LUN, then the LUN with its device.
    ASSERT_EQ(device.TcmuDevOpen(), 0);
    ExpectKnown(key, nullptr, nullptr);
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(Registry().at(key).second, &device);
    ExpectKnown(key, &host, &host.held);
    ExpectKnown("MoScsiSrvTcmu/other", nullptr, nullptr);

    // A close leaves the LUN, a second create replaces its record, and a device comes back.
    device.TcmuDevClose();
    EXPECT_EQ(Registry().at(key).second, nullptr);
    lun.bstoreCtx = nullptr;
    ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
    EXPECT_EQ(Registry().at(key).second, nullptr);
    EXPECT_EQ(Registry().at(key).first.serialNum, lun.serialNum);
    MoScsiSrvTcmuDev next(&lib);
    ASSERT_EQ(next.TcmuDevOpen(), 0);
    EXPECT_EQ(Registry().at(key).second, &next);
    ExpectKnown(key, nullptr, nullptr);
    SetLun(nullptr, &host.held);  // nor are they with the other half
    ExpectKnown(key, nullptr, nullptr);

    EXPECT_TRUE(Platform().UnRegisterTcmuDev(&next));
    EXPECT_FALSE(Platform().UnRegisterTcmuDev(&device));  // closed: of no string
}

TEST_F(PlatformUserLunsTest, DeleteWaitsUntilTheDeviceHasClosedOrAnotherHasTakenTheLunAway) {
    ExpectError(Platform().DeleteLun(&lun), 774, "/Path lun not found");
    EXPECT_THAT(journal.Events(), ElementsAre("+map", "-map"));
    for (const bool closes : {true, false}) {
        ASSERT_FALSE(Platform().CreateLun(&lun).IsError());
        ASSERT_EQ(device.TcmuDevOpen(), 0);
        int polls = 0;
        g_os.onSleep = [&] {
            if (!Registry().contains(key))
                throw std::logic_error("waits for nobody");
            if (++polls == 3 && !(closes && Platform().UnRegisterTcmuDev(&device)))
                Registry().erase(key);
        };
        Registry()["MoScsiSrvTcmu/other"];
        journal.Reset(1);
        EXPECT_FALSE(Platform().DeleteLun(&lun).IsError());
        EXPECT_EQ(Registry().size(), 1U);
        EXPECT_FALSE(Registry().contains(key));
        Strings events = journal.Events();
        events.erase(events.begin(), std::ranges::find(events, "-cfg"));
        events.pop_back();  // the confirmation
        const Strings look{"+map", "-map"};
        const Strings poll{"+map", "-map", "[1] waiting for tcmu dev close iqn.Ab/3", "sleep 2.0"};
        const Strings expected =
            Strings{"-cfg"} + poll + poll + poll + look + (closes ? look : Strings());
        EXPECT_EQ(events, expected);
    }
}
