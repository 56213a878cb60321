#include "tools/targetcli/Surroundings.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>

#include "framework/SmallFile.h"
#include "tools/targetcli/ConfigfsChange.h"
#include "tools/targetcli/ProvenPackages.h"

namespace {

namespace fs = std::filesystem;

constexpr char kConfigfsRoot[] = "/sys/kernel/config/target";
constexpr char kPython[] = "/usr/bin/python3";
constexpr char kModules[] = "/usr/lib/python3/dist-packages";
constexpr char kBus[] = "/var/run/dbus/system_bus_socket";
constexpr char kDatabase[] = "/etc/rtslib-fb-target";
constexpr const char* kKernelModules[] = {"target_core_mod",    "target_core_file",
                                          "target_core_iblock", "target_core_pscsi",
                                          "target_core_user",   "iscsi_target_mod"};

// Variables that send Python or the bus elsewhere, or tell the width of lists; the wrapper gives
// PYTHONWARNINGS itself.
bool Diverts(std::string_view entry) {
    return (entry.starts_with("PYTHON") && !entry.starts_with("PYTHONWARNINGS=")) ||
           entry.starts_with("DBUS_") || entry.starts_with("COLUMNS=") ||
           entry.starts_with("LINES=");
}

// Directories that Python searches before, or besides, that of Debian's packages.
void RequireNoOtherModules() {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator("/usr/local/lib", ignored)) {
        if (!entry.path().filename().string().starts_with("python3"))
            continue;
        for (const char* package : {"configshell_fb", "rtslib_fb", "targetcli"})
            Require(!fs::exists(entry.path() / "dist-packages" / package, ignored),
                    "modules of targetcli in /usr/local");
    }
    const char* const home = getenv("HOME");
    Require(home == nullptr || !fs::exists(fs::path(home) / ".local/lib", ignored),
            "the user may have modules of their own");
}

bool BusAnswers() {
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, kBus, sizeof kBus);
    const UniqueFd bus(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connect(bus.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

std::string RequireProvenTargetcli(const Settings& settings, const std::string& real) {
    Require(settings.fastRoad, "MOSCSI_TARGETCLI_FAST_ROAD is off");
    Require(geteuid() == 0, "not root");
    Require(settings.configfsRoot == kConfigfsRoot, "another tree than the kernel's");
    for (char** entry = environ; *entry != nullptr; ++entry)
        Require(!Diverts(*entry), "a variable diverts Python, the bus or lists");
    Require(access(kPython, X_OK) == 0, "no Python");
    RequireNoOtherModules();
    const auto hash = HashOfPackages(real, kModules);
    Require(hash.has_value(), "targetcli's files can't be read");
    const auto proven = FindProvenPackages(*hash);
    if (!proven) {
        char text[80];
        snprintf(text, sizeof text, "not proven equal with the installed targetcli (%016llx)",
                 static_cast<unsigned long long>(*hash));
        throw SlowRoad(text);
    }
    return proven->version;
}

void RequirePreparedMachine(const fs::path& root) {
    std::error_code ignored;
    for (const char* module : kKernelModules)
        Require(fs::exists(fs::path("/sys/module") / module, ignored), "modules aren't loaded");
    Require(fs::is_directory(root / "iscsi", ignored), "no iSCSI in configfs");
    Require(FirstLineOf(root / "dbroot") == kDatabase && fs::is_directory(kDatabase, ignored),
            "another database directory");
    Require(BusAnswers(), "no bus");
}
