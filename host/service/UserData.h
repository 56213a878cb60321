#pragma once

#include <map>
#include <memory>
#include <nlohmann/json_fwd.hpp>
#include <set>
#include <string>
#include <utility>

#include "host/kernel/ConfigfsView.h"
#include "host/plan/Plan.h"
#include "platform/MoScsiSrvPlatform.h"

class LunData;

/// The data sides of the plan's user LUNs.
///
/// Thread: made and stopped by one thread; Of and Statistics by any in between. The plan and the
/// platform outlive it.
class UserData {
  public:
    UserData();
    ~UserData();
    UserData(const UserData&) = delete;
    UserData& operator=(const UserData&) = delete;

    /// Makes the data side of each user LUN but those in `without`.
    /// Returns: empty, or one line that says what is wrong.
    std::string Make(const Plan& plan, const std::set<const LunPlan*>& without,
                     MoScsiSrvPlatform& platform);

    /// A LUN's operations and context; both null when it has none.
    std::pair<MoScsiBStorOps*, void*> Of(const LunPlan& lun) const;

    nlohmann::json Statistics(const LunPlan& lun) const;

    /// Tells each LUN how long the kernel waits for its device's commands, where `view` shows it.
    /// The kernel lets nobody change it while the device is exported.
    void SetTimeOuts(const Plan& plan, const ConfigfsView& view);

    /// Ends what the LUNs' threads do. Requires: DeleteLun of each has returned, or the process is
    /// about to end.
    void Stop();

  private:
    std::map<const LunPlan*, std::unique_ptr<LunData>> m_luns;
};

/// The memory LUNs whose devices are in the kernel already: their data died with the process that
/// served them.
std::set<const LunPlan*> LostMemory(const Plan& plan, const ConfigfsView& before);
