#include "host/service/Environment.h"

#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "framework/EnvironmentVariable.h"
#include "framework/FindTargetcli.h"
#include "framework/MOPlatformInfo.h"
#include "framework/MoProcess.h"
#include "framework/UniqueFd.h"
#include "util/Platform_Util.h"

namespace {

namespace fs = std::filesystem;

constexpr int kDefaultPort = 3260;  // RFC 7143, 13.2

PlatformFacts DefaultFacts(const std::string& home) {
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0)
        name[0] = '\0';
    PlatformFacts facts;
    facts.physicalMachine = name.data();
    facts.homeDirectory = home;
    facts.strings["Base"]["dBASEHOME"] = home;
    return facts;
}

/// The system bus's socket, where every client looks for it.
std::string BusSocket() {
    const std::string prefix = "unix:path=";
    const std::string address = EnvironmentVariable("DBUS_SYSTEM_BUS_ADDRESS", "");
    return address.starts_with(prefix)
               ? address.substr(prefix.size(), address.find(',') - prefix.size())
               : "/run/dbus/system_bus_socket";
}

/// Connecting says more than a look: a socket file outlives its daemon.
bool BusAnswers(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const UniqueFd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return connection.Valid() &&
           connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
               0;
}

}  // namespace

std::string FindEnvironment(const std::string& platformFile, Environment& environment) {
    std::error_code ignored;
    const fs::path prefix = fs::read_symlink("/proc/self/exe", ignored).parent_path().parent_path();
    const fs::path ownHome = prefix / "libexec/moscsi";
    environment.library = prefix / "lib/moscsi/libMoScsiSrvLIO.so";
    environment.runDirectory = EnvironmentVariable("MOSCSI_RUN_DIR", "/run/moscsi");
    environment.stateDirectory = EnvironmentVariable("MOSCSI_STATE_DIR", "/var/lib/moscsi");
    environment.configfs = EnvironmentVariable("MOSCSI_CONFIGFS_ROOT", "/sys/kernel/config/target");

    PlatformFacts facts = DefaultFacts(ownHome);
    if (fs::exists(platformFile, ignored)) {
        if (std::string fault = MOPlatformInfo::readFacts(platformFile, facts); !fault.empty())
            return fault;
        // A file that names no home leaves the one that was compiled in; where this program really
        // is counts more.
        if (!fs::exists(fs::path(facts.homeDirectory) / "moscsi_server.sh", ignored))
            facts.homeDirectory = ownHome;
    }
    MOPlatformInfo::setFacts(facts);
    environment.home = facts.homeDirectory;
    const int port = Platform_Util::GetScsiServicePort();
    environment.portIsDefault = port < 0;
    environment.port = port < 0 ? kDefaultPort : port;
    return {};
}

void PrepareSearchPath(const Environment& environment) {
    const std::string path = fmt::format(
        "{}:{}:/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:"
        "/sbin:/bin",
        (environment.home / "bin").string(), EnvironmentVariable("PATH", "/"));
    setenv("PATH", path.c_str(), 1);
}

std::string MissingPrerequisite(const Environment& environment) {
    if (geteuid() != 0)
        return "must be run as root, since it configures the kernel: use sudo";
    const fs::path wrapper = environment.home / "bin/targetcli";
    if (!IsProgram(wrapper))
        return fmt::format(
            "the targetcli wrapper isn't in {}: install the product, or name its "
            "home directory in the platform file",
            (environment.home / "bin").string());
    std::string error;
    if (FindTargetcli(EnvironmentVariable("MOSCSI_TARGETCLI_REAL", ""), wrapper, error).empty())
        return error;
    if (!BusAnswers(BusSocket()))
        return fmt::format(
            "no D-Bus system bus answers at {}, which targetcli needs: install and "
            "start dbus",
            BusSocket());
    return {};
}

std::string StartComplaint(const Environment& environment) {
    const fs::path script = environment.home / "moscsi_server.sh";
    if (!IsProgram(script))
        return fmt::format(
            "{} isn't there: install the product, or name its home directory in the "
            "platform file",
            script.string());
    for (const std::string& command :
         {script.string() + " -start", std::string("targetcli ls /")}) {
        std::string errors;
        if (MoProcess::system(command, nullptr, &errors, 0, false) == 0)
            continue;
        while (errors.ends_with('\n'))
            errors.pop_back();
        return errors.substr(errors.rfind('\n') + 1);
    }
    return {};
}

std::string TargetcliVersion() {
    std::string answer;
    // Not by way of cut, as the plug-in does: that would succeed where targetcli fails.
    if (MoProcess::system("targetcli --version 2>&1", &answer, nullptr, 0, false) != 0)
        return {};
    std::istringstream words(answer.substr(0, answer.find('\n')));
    std::string version;
    words >> version >> version >> version;
    return version;
}
