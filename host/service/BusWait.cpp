#include "host/service/BusWait.h"

#include <fmt/format.h>
#include <sdbus-c++/sdbus-c++.h>
#include <unistd.h>

#include <filesystem>
#include <future>
#include <memory>
#include <system_error>
#include <thread>

#include "framework/SmallFile.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kName[] = "org.kernel.TCMUService1";
constexpr const char* kObjects[] = {"/org/kernel/TCMUService1/MoScsiSrvTcmu",
                                    "/org/kernel/TCMUService1/moscsisrvtcmu"};
constexpr std::chrono::milliseconds kPoll{100};
constexpr uint64_t kCallMicroseconds = 2000000;
constexpr std::chrono::seconds kOpenLimit{5};

/// On a thread of its own: with a bus that accepts and never answers the library waits 90 s, and
/// nothing but the end of the process cuts that short.
std::unique_ptr<sdbus::IConnection> OpenBus(const std::function<bool()>& stopAsked) {
    std::packaged_task<std::unique_ptr<sdbus::IConnection>()> open(
        [] { return sdbus::createSystemBusConnection(); });
    auto connection = open.get_future();
    std::thread(std::move(open)).detach();
    const Clock::time_point deadline = Clock::now() + kOpenLimit;
    while (connection.wait_for(kPoll) != std::future_status::ready) {
        if (stopAsked())
            throw sdbus::Error("org.freedesktop.DBus.Error.NoReply", "the stop didn't wait for it");
        if (Clock::now() >= deadline)
            throw sdbus::Error("org.freedesktop.DBus.Error.NoReply",
                               fmt::format("it accepts a connection and says nothing for {} s",
                                           kOpenLimit.count()));
    }
    return connection.get();
}

/// The bus, asked synchronously.
class Bus {
  public:
    explicit Bus(const std::function<bool()>& stopAsked) : m_connection(OpenBus(stopAsked)) {}

    /// The unique name of the owner; empty when there is none. Starts nobody.
    std::string Owner() {
        try {
            return Ask<std::string>("GetNameOwner", kName);
        } catch (const sdbus::Error& error) {
            if (error.getName() == "org.freedesktop.DBus.Error.NameHasNoOwner")
                return {};
            throw;
        }
    }

    pid_t ProcessOf(const std::string& owner) {
        return static_cast<pid_t>(Ask<uint32_t>("GetConnectionUnixProcessID", owner));
    }

    bool Shows(const std::string& owner, const char* object) {
        try {
            auto proxy = sdbus::createProxy(*m_connection, owner, object);
            auto call = proxy->createMethodCall("org.freedesktop.DBus.Properties", "Get");
            call << std::string(kName) << std::string("ConfigDesc");
            proxy->callMethod(call, kCallMicroseconds);
            return true;
        } catch (const sdbus::Error&) {
            return false;
        }
    }

  private:
    template <typename Result>
    Result Ask(const char* method, const std::string& argument) {
        auto proxy =
            sdbus::createProxy(*m_connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
        auto call = proxy->createMethodCall("org.freedesktop.DBus", method);
        call << argument;
        auto reply = proxy->callMethod(call, kCallMicroseconds);
        Result result{};
        reply >> result;
        return result;
    }

    std::unique_ptr<sdbus::IConnection> m_connection;
};

std::string ProgramOf(pid_t process) {
    const std::string name = FirstLineOf(fmt::format("/proc/{}/comm", process));
    return name.empty() ? "a program" : name;
}

/// Returns: empty when all is there; otherwise what isn't, as things stand.
std::string Lacking(Bus& bus) {
    const std::string owner = bus.Owner();
    if (owner.empty()) {
        if (!std::filesystem::exists("/sys/module/target_core_user"))
            return "the kernel has no TCM-USER (module target_core_user is not loaded): see what "
                   "the service script says";
        return fmt::format("nobody owns the D-Bus name {}: see the plug-in's log lines", kName);
    }
    const pid_t process = bus.ProcessOf(owner);
    if (process != getpid())
        return fmt::format(
            "the D-Bus name {} is owned by {} (process {}), and only one program a "
            "machine can serve user backstores: stop that one",
            kName, ProgramOf(process), process);
    for (const char* object : kObjects)
        if (!bus.Shows(owner, object))
            return fmt::format("the D-Bus object {} is not there: see the plug-in's log lines",
                               object);
    return {};
}

}  // namespace

std::string WaitForBusObjects(std::chrono::seconds limit, const std::function<bool()>& stopAsked) {
    try {
        Bus bus(stopAsked);
        const Clock::time_point deadline = Clock::now() + limit;
        for (;;) {
            std::string lacking = Lacking(bus);
            if (lacking.empty() || stopAsked() || Clock::now() >= deadline)
                return lacking;
            std::this_thread::sleep_for(kPoll);
        }
    } catch (const sdbus::Error& error) {
        return fmt::format("the D-Bus system bus doesn't answer ({}): install and start dbus",
                           error.getMessage());
    } catch (const std::system_error& error) {
        return fmt::format(
            "no thread to ask the D-Bus system bus with ({}): raise the limit of "
            "processes",
            error.what());
    }
}

bool WaitForBusNameGone(std::chrono::seconds limit) {
    try {
        Bus bus([] { return false; });
        const Clock::time_point deadline = Clock::now() + limit;
        for (;;) {
            const std::string owner = bus.Owner();
            if (owner.empty() || bus.ProcessOf(owner) != getpid())
                return true;
            if (Clock::now() >= deadline)
                return false;
            std::this_thread::sleep_for(kPoll);
        }
    } catch (const sdbus::Error&) {
        return true;  // without a bus nobody owns anything; an owner that left between two calls
    }
}
