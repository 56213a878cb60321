#pragma once

#include <memory>
#include <string>

#include "host/data/DataEngine.h"
#include "host/data/FaultInjector.h"
#include "host/data/LunData.h"
#include "host/data/Transfers.h"
#include "host/data/WaitingRoom.h"

/// What a LunData is made of, in the order of making. MakeLunData fills it; so can a test, with an
/// engine of its own.
struct LunData::Parts {
    Parts(const LunDataConfig& made, MoScsiSrvPlatform& platform)
        : config(made), transfers(made.name, made.Place(), platform), faults(made.faults) {}

    const LunDataConfig config;
    Transfers transfers;
    FaultInjector faults;
    std::unique_ptr<DataEngine> engine;
    std::unique_ptr<WaitingRoom> waitingRoom;
};
