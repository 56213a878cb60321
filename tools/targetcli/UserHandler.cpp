#include "tools/targetcli/UserHandler.h"

#include <dlfcn.h>
#include <systemd/sd-bus.h>

#include <string>

#include "tools/targetcli/ConfigfsChange.h"

namespace {

constexpr char kService[] = "org.kernel.TCMUService1";
constexpr char kObjects[] = "/org/kernel/TCMUService1/";

// Loaded when it is needed: with all that it needs in turn it takes longer than most commands.
class BusLibrary {
  public:
    BusLibrary() : m_library(dlopen("libsystemd.so.0", RTLD_NOW)) {
        Require(m_library != nullptr, "no library for the bus");
    }
    template <class Function>
    Function* Get(const char* name) const {
        void* const symbol = dlsym(m_library, name);
        Require(symbol != nullptr, "another library for the bus");
        return reinterpret_cast<Function*>(symbol);
    }

  private:
    void* m_library;  // stays: the process ends soon
};
// By its type alone: a reference to the function would want the library at the link.
#define BUS(function) library.Get<decltype(function)>(#function)

// One question at the handler's object, of one string, to whoever owns the service's name now.
sd_bus_message* Ask(const BusLibrary& library, sd_bus* bus, const std::string& destination,
                    const std::string& path, const char* interface, const char* member,
                    const char* types, const char* first, const char* second) {
    sd_bus_message* reply = nullptr;
    Require(BUS(sd_bus_call_method)(bus, destination.c_str(), path.c_str(), interface, member,
                                    nullptr, &reply, types, first, second) >= 0,
            "nobody serves user backstores of this handler");
    return reply;
}

void AskHandler(const CommandLine& line, bool checkConfig) {
    const BusLibrary library;
    const std::string object = kObjects + line.handler;
    sd_bus* bus = nullptr;
    Require(BUS(sd_bus_open_system)(&bus) >= 0, "no bus");

    const char* owner = nullptr;
    sd_bus_message* reply = Ask(library, bus, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                                "org.freedesktop.DBus", "GetNameOwner", "s", kService, nullptr);
    Require(BUS(sd_bus_message_read)(reply, "s", &owner) > 0, "no owner of the service");
    const std::string destination = owner;
    Ask(library, bus, destination, object, "org.freedesktop.DBus.Properties", "Get", "ss", kService,
        "ConfigDesc");
    if (!checkConfig)
        return;
    const std::string config = line.handler + "/" + line.config;
    int taken = 0;
    const char* reason = nullptr;
    reply = Ask(library, bus, destination, object, kService, "CheckConfig", "s", config.c_str(),
                nullptr);
    Require(BUS(sd_bus_message_read)(reply, "bs", &taken, &reason) > 0 && taken != 0,
            "the handler refuses the configuration");
}

}  // namespace

void RequireUserHandler(const CommandLine& line) {
    if (!line.handler.empty())
        AskHandler(line, false);
}

void RequireHandlerTakesConfig(const CommandLine& line) {
    AskHandler(line, true);
}
