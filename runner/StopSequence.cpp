#include "runner/StopSequence.h"

#include <poll.h>

#include <cstring>
#include <set>
#include <thread>

#include "framework/SmallFile.h"
#include "libtcmu/LibtcmuApi.h"
#include "util/Log.h"

namespace {

using Clock = ServiceThread::Clock;
constexpr std::chrono::milliseconds kLookAgain(5);

// For a thread that has nothing to wait for, once the limit is used up.
constexpr std::chrono::milliseconds kGrace(1000);

class Stop {
  public:
    Stop(const RunnerEnvironment& environment, DeviceTable& table)
        : m_table(table), m_deadline(Clock::now() + environment.stopLimit) {}

    // Blocks every device that isn't yet, and waits until all are drained or time is up.
    void BlockAndDrain() {
        for (const std::filesystem::path& backstore : m_table.Backstores())
            if (m_blocked.insert(backstore).second)
                Block(backstore);
        while (!m_table.Drained() && Clock::now() < m_deadline)
            std::this_thread::sleep_for(kLookAgain);
    }

    // Closing the context makes libtcmu unblock its devices, and then commands would go to a ring
    // that nobody serves and expire with an error. Blocked, they wait, and expire as TASK SET FULL,
    // which initiators repeat.
    void BlockAgain() const {
        for (const std::filesystem::path& backstore : m_blocked)
            Block(backstore);
    }

    // A little more than the deadline for those who need not wait for the host.
    Clock::time_point Patience() const { return std::max(m_deadline, Clock::now() + kGrace); }

    // Returns: whether every device is closed.
    bool CloseDevices() {
        bool all = true;
        for (DeviceServer* server : m_table.Servers()) {
            const bool ended = server->EndThreadBy(Patience());
            if (ended && server->Drained()) {
                server->Close();
                continue;
            }
            all = false;
            MO_LOG(kLogError, "TCMU runner: %s: the host still holds %u commands%s",
                   server->CfgString().c_str(), server->InFlight(),
                   ended ? "" : ", and has not returned from Read or Write");
        }
        return all;
    }

  private:
    static void Block(const std::filesystem::path& backstore) {
        const std::filesystem::path file = backstore / "action" / "block_dev";
        const int error = WriteSmallFile(file, "1");
        if (error != 0)
            MO_LOG(kLogProgress, "TCMU runner: cannot block %s: %s", file.c_str(), strerror(error));
    }

    DeviceTable& m_table;
    const Clock::time_point m_deadline;
    std::set<std::filesystem::path> m_blocked;
};

}  // namespace

bool StopServing(const RunnerEnvironment& environment, DeviceTable& table, MasterThread& master) {
    Stop stop(environment, table);
    // While devices drain, the kernel's requests to remove some are still answered.
    stop.BlockAndDrain();
    const bool masterEnded = master.EndBy(stop.Patience());
    if (!masterEnded) {
        MO_LOG(kLogError, "TCMU runner: a removed device waits for commands that the host holds");
    } else {
        stop.BlockAndDrain();  // those that came meanwhile
        if (stop.CloseDevices()) {
            environment.tcmu->Close();
            stop.BlockAgain();
            return true;
        }
    }
    MO_LOG(kLogError,
           "TCMU runner: libtcmu's context stays open; the kernel keeps the devices for the next "
           "start");
    return false;
}
