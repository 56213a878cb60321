#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "framework/Mutex.h"
#include "framework/UniqueFd.h"

namespace sdbus {
class IConnection;
class IObject;
}  // namespace sdbus

/// The TCMU service on the system bus, through which targetcli finds out which handlers run:
/// the name org.kernel.TCMUService1, an object manager at /org/kernel/TCMUService1, and below it
/// one object a handler with interface org.kernel.TCMUService1 (method CheckConfig(s) -> (bs),
/// property ConfigDesc).
///
/// The name is also the lock against a second daemon: two would disturb each other's devices, so it
/// is taken first, without queueing, and given up last. Calls are answered from the moment on that
/// the name is taken (with "no such object" until there are objects), by a thread of this class.
///
/// When the bus goes away (dbus-daemon was restarted), that thread says so, looks for it twice a
/// second, and takes the name and offers the objects again; LUNs are served all the while.
///
/// Thread: one, for all operations.
class DbusService {
  public:
    static constexpr const char* kName = "org.kernel.TCMUService1";
    static constexpr const char* kPath = "/org/kernel/TCMUService1";

    DbusService();
    ~DbusService();

    DbusService(const DbusService&) = delete;
    DbusService& operator=(const DbusService&) = delete;

    /// Connects and takes the name. Returns: whether it is ours (logged: no bus, no permission, or
    /// which process has the name).
    bool TakeName();

    /// Offers one object for each handler. Returns: whether that worked (logged).
    /// Requires: TakeName() has succeeded.
    bool ExportHandlers(const std::vector<std::string>& subtypes) MO_EXCLUDES(m_mutex);

    /// Takes the objects back, so that targetcli makes no more devices.
    void WithdrawHandlers() MO_EXCLUDES(m_mutex);

    /// Gives the name up and disconnects. Also done by the destructor.
    void GiveUpName();

    /// The answer to CheckConfig: whether `config` is "SUBTYPE/" and something, and if not, why.
    static std::pair<bool, std::string> CheckConfig(const std::string& subtype,
                                                    const std::string& config);

  private:
    void Serve();
    void ServeConnection();
    bool ConnectAgain();
    std::unique_ptr<sdbus::IConnection> Connect() const;
    bool Told(std::chrono::milliseconds within) const;
    void ExportLocked() MO_REQUIRES(m_mutex);
    std::unique_ptr<sdbus::IObject> MakeHandler(const std::string& subtype);
    std::string DescribeOwner();

    // Replaced by the thread alone, under the mutex; without a thread by the caller.
    std::unique_ptr<sdbus::IConnection> m_connection;
    UniqueFd m_stop;  // readable: the thread is to end

    Mutex m_mutex;
    std::vector<std::string> m_subtypes MO_GUARDED_BY(m_mutex);  ///< offered, or to be
    std::vector<std::unique_ptr<sdbus::IObject>> m_objects
        MO_GUARDED_BY(m_mutex);  ///< manager first

    std::thread m_thread;
};
