#include "runner/DbusService.h"

#include <poll.h>
#include <pthread.h>
#include <sdbus-c++/sdbus-c++.h>
#include <sys/eventfd.h>

#include <cstdint>
#include <exception>
#include <future>
#include <tuple>

#include "framework/SmallFile.h"
#include "util/Log.h"

namespace {

constexpr std::chrono::milliseconds kLookAgain{500};
constexpr std::chrono::milliseconds kTick{100};

}  // namespace

DbusService::DbusService() = default;

DbusService::~DbusService() {
    GiveUpName();
}

bool DbusService::TakeName() {
    try {
        m_connection = sdbus::createSystemBusConnection();
    } catch (const std::exception& error) {
        MO_LOG(kLogError, "TCMU runner: no system D-Bus (%s): start dbus-daemon", error.what());
        return false;
    }
    try {
        m_connection->requestName(kName);
        m_stop = UniqueFd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        m_thread = std::thread([this] { Serve(); });
    } catch (const std::exception& error) {
        const std::string owner = DescribeOwner();
        if (owner.empty())
            MO_LOG(kLogError, "TCMU runner: cannot take the D-Bus name %s: %s", kName,
                   error.what());
        else
            MO_LOG(kLogError,
                   "TCMU runner: another TCMU daemon has the D-Bus name %s: %s. Stop it first",
                   kName, owner.c_str());
        m_connection.reset();
        return false;
    }
    return true;
}

bool DbusService::ExportHandlers(const std::vector<std::string>& subtypes) {
    const MutexGuard guard(m_mutex);
    m_subtypes = subtypes;
    try {
        ExportLocked();
    } catch (const std::exception& error) {
        MO_LOG(kLogError, "TCMU runner: cannot offer the handlers on D-Bus: %s", error.what());
        return false;
    }
    return true;
}

void DbusService::ExportLocked() {
    m_objects.push_back(sdbus::createObject(*m_connection, kPath));
    m_objects.back()->addObjectManager();
    m_objects.back()->finishRegistration();
    for (const std::string& subtype : m_subtypes) {
        m_objects.push_back(MakeHandler(subtype));
        m_objects.back()->emitInterfacesAddedSignal();
    }
}

void DbusService::WithdrawHandlers() {
    const MutexGuard guard(m_mutex);
    m_subtypes.clear();
    while (!m_objects.empty()) {
        try {
            if (m_objects.size() > 1)
                m_objects.back()->emitInterfacesRemovedSignal();
        } catch (const std::exception& error) {
            MO_LOG(kTraceDetail, "TCMU runner: D-Bus: %s", error.what());
        }
        m_objects.pop_back();
    }
}

void DbusService::GiveUpName() {
    if (!m_thread.joinable())  // not by the connection: the thread may be replacing it
        return;
    WithdrawHandlers();
    eventfd_write(m_stop.Get(), 1);
    m_thread.join();
    try {
        m_connection->releaseName(kName);
    } catch (const std::exception& error) {
        MO_LOG(kTraceDetail, "TCMU runner: D-Bus: %s", error.what());
    }
    m_connection.reset();
}

std::pair<bool, std::string> DbusService::CheckConfig(const std::string& subtype,
                                                      const std::string& config) {
    const std::string start = subtype + "/";
    if (!config.starts_with(start) || config.size() == start.size())
        return {false, "the configuration must be \"" + start + "\" and the LUN's identifier"};
    return {true, ""};
}

// The connection's messages. Not the library's own loop: that one ends the whole process when the
// bus goes away.
void DbusService::Serve() {
    pthread_setname_np(pthread_self(), "moscsi-dbus");
    do {
        try {
            ServeConnection();
            return;
        } catch (const std::exception& error) {
            MO_LOG(kLogError,
                   "TCMU runner: D-Bus connection lost (%s): targetcli finds no handler until the "
                   "bus is back",
                   error.what());
        }
    } while (ConnectAgain());
}

// Returns when the thread is to end; throws when the bus has gone away.
void DbusService::ServeConnection() {
    for (;;) {
        while (m_connection->processPendingRequest()) {
        }
        const auto bus = m_connection->getEventLoopPollData();
        pollfd waits[] = {{bus.fd, bus.events, 0}, {m_stop.Get(), POLLIN, 0}};
        poll(waits, 2, bus.getPollTimeout());
        if (waits[1].revents != 0)
            return;
    }
}

bool DbusService::Told(std::chrono::milliseconds within) const {
    pollfd stop = {m_stop.Get(), POLLIN, 0};
    return poll(&stop, 1, static_cast<int>(within.count())) == 1;
}

// With the name. Returns: null when the thread is to end. A bus that accepts and says nothing keeps
// the library waiting for 90 s: on a thread of its own, which may outlive this object.
std::unique_ptr<sdbus::IConnection> DbusService::Connect() const {
    std::packaged_task<std::unique_ptr<sdbus::IConnection>()> open([] {
        auto bus = sdbus::createSystemBusConnection();
        bus->requestName(kName);
        return bus;
    });
    auto connection = open.get_future();
    std::thread(std::move(open)).detach();
    while (connection.wait_for(std::chrono::milliseconds(0)) != std::future_status::ready)
        if (Told(kTick))
            return nullptr;
    return connection.get();
}

// Returns: false when the thread is to end.
bool DbusService::ConnectAgain() {
    std::string told;
    while (!Told(kLookAgain)) {
        try {
            auto connection = Connect();
            if (!connection)
                return false;
            const MutexGuard guard(m_mutex);
            m_objects.clear();
            m_connection = std::move(connection);
            if (!m_subtypes.empty())
                ExportLocked();
            MO_LOG(kLogConfirm, "TCMU runner: D-Bus is back, and %s is ours again", kName);
            return true;
        } catch (const std::exception& error) {
            if (told != error.what())
                MO_LOG(kLogProgress, "TCMU runner: not back on D-Bus yet: %s", error.what());
            told = error.what();
        }
    }
    return false;
}

std::unique_ptr<sdbus::IObject> DbusService::MakeHandler(const std::string& subtype) {
    auto object = sdbus::createObject(*m_connection, std::string(kPath) + "/" + subtype);
    object->registerMethod("CheckConfig")
        .onInterface(kName)
        .withInputParamNames("config")
        .withOutputParamNames("valid", "reason")
        .implementedAs([subtype](const std::string& config) {
            const auto [valid, reason] = CheckConfig(subtype, config);
            return std::make_tuple(valid, reason);
        });
    object->registerProperty("ConfigDesc").onInterface(kName).withGetter([] {
        return std::string("Identifier of a LUN whose data the SCSI server holds.");
    });
    object->finishRegistration();
    return object;
}

// "name (process N)" of the process that has the bus name; empty when there is none.
std::string DbusService::DescribeOwner() {
    try {
        const auto bus =
            sdbus::createProxy(*m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        std::string owner;
        bus->callMethod("GetNameOwner")
            .onInterface("org.freedesktop.DBus")
            .withArguments(std::string(kName))
            .storeResultsTo(owner);
        uint32_t process = 0;
        bus->callMethod("GetConnectionUnixProcessID")
            .onInterface("org.freedesktop.DBus")
            .withArguments(owner)
            .storeResultsTo(process);
        const std::string program = FirstLineOf("/proc/" + std::to_string(process) + "/comm");
        return (program.empty() ? "a program that has ended" : program) + " (process " +
               std::to_string(process) + ")";
    } catch (const std::exception&) {
        return "";
    }
}
