#include "runner/Runner.h"

#include <cstring>
#include <exception>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "framework/ExceptionOf.h"
#include "libtcmu/Device.h"
#include "libtcmu/LibtcmuApi.h"
#include "runner/DbusService.h"
#include "runner/DeviceTable.h"
#include "runner/InterruptWait.h"
#include "runner/MasterThread.h"
#include "runner/NetlinkReset.h"
#include "runner/RunnerEnvironment.h"
#include "runner/StopSequence.h"
#include "util/Log.h"

namespace {

// targetcli lower-cases its command lines, and matches names by case: both spellings must be there.
const std::vector<std::string> kSubTypes = {std::string(kCanonicalSubType), "moscsisrvtcmu"};
constexpr const char* kDescription = "Identifier of a LUN whose data the SCSI server holds.";

constexpr std::chrono::milliseconds kLookAgain(20);

struct Serving {
    explicit Serving(const RunnerEnvironment& environment)
        : table(environment), master(*environment.tcmu) {}

    DeviceTable table;
    MasterThread master;
};

// What a stop had to leave open lives to the end of the process: the host's late completions need
// it. The name, too: another daemon would reset the rings that these write to.
void LeaveOpen(std::unique_ptr<Serving> serving, std::unique_ptr<DbusService> dbus) {
    static Mutex mutex;
    static auto* left =
        new std::vector<std::pair<std::unique_ptr<Serving>, std::unique_ptr<DbusService>>>;
    const MutexGuard guard(mutex);
    left->emplace_back(std::move(serving), std::move(dbus));
}

bool WaitForFamily(const RunnerEnvironment& environment, InterruptWait& interrupt) {
    if (environment.familyRegistered())
        return true;
    MO_LOG(kLogProgress, "TCMU runner: waiting for the kernel's TCM-USER (target_core_user)");
    while (!interrupt.WaitFor(environment.familyPause))
        if (environment.familyRegistered())
            return true;
    return false;
}

std::vector<LibtcmuApi::SubType> SubTypes() {
    std::vector<LibtcmuApi::SubType> subTypes;
    subTypes.reserve(kSubTypes.size());
    for (const std::string& name : kSubTypes)
        subTypes.push_back({name, kDescription});
    return subTypes;
}

LibtcmuApi::Callbacks MakeCallbacks(DeviceTable& table) {
    LibtcmuApi::Callbacks callbacks;
    callbacks.added = [&table](LibDevice* device) { return table.Added(device); };
    callbacks.removed = [&table](LibDevice* device) { table.Removed(device); };
    callbacks.checkConfig = [](const std::string& config, std::string& reason) {
        bool valid = false;
        for (const std::string& subType : kSubTypes) {
            const auto [good, why] = DbusService::CheckConfig(subType, config);
            valid = valid || good;
            reason = why;
        }
        return valid;
    };
    return callbacks;
}

// From the context on: offers, serves, stops, and takes the name along where something stays open.
// Returns: whether it came to serving.
bool ServeDevices(const RunnerEnvironment& environment, InterruptWait& interrupt,
                  NetlinkReset& netlink, std::unique_ptr<DbusService>& dbus,
                  std::unique_ptr<Serving> serving) {
    bool served = false;
    try {
        serving->master.Start();
        served = netlink.Unblock() && dbus->ExportHandlers(kSubTypes);
    } catch (const std::exception& error) {
        MO_LOG(kLogError, "TCMU runner: cannot start its thread: %s", error.what());
    }
    if (served) {
        MO_LOG(kLogProgress, "TCMU runner: ready");
        // Without memory for a look at what came it looks again: devices are served all the while.
        while (ExceptionOf([&] { interrupt.Wait(); }))
            std::this_thread::sleep_for(kLookAgain);
        MO_LOG(kLogProgress, "TCMU runner: stopping");
    }
    dbus->WithdrawHandlers();
    bool stopped = false;
    if (const auto fault = ExceptionOf(
            [&] { stopped = StopServing(environment, serving->table, serving->master); }))
        MO_LOG(kLogError, "TCMU runner: the stop failed: %s", fault->c_str());
    if (!stopped)
        LeaveOpen(std::move(serving), std::move(dbus));
    return served;
}

}  // namespace

int RunRunner(const RunnerEnvironment& environment, InterruptWait& interrupt) {
    if (interrupt.Interrupted())
        return 0;
    auto dbus = std::make_unique<DbusService>();  // destroyed last: its name keeps others away
    if (!dbus->TakeName())
        return 1;
    if (!WaitForFamily(environment, interrupt))
        return 0;

    NetlinkReset netlink(environment.moduleParameters);
    if (!netlink.BlockAndReset())
        return 1;
    auto serving = std::make_unique<Serving>(environment);
    const int result = environment.tcmu->Initialize(SubTypes(), MakeCallbacks(serving->table));
    if (result < 0) {
        MO_LOG(kLogError, "TCMU runner: libtcmu could not be initialised: %s", strerror(-result));
        return 1;
    }
    return ServeDevices(environment, interrupt, netlink, dbus, std::move(serving)) ? 0 : 1;
}
