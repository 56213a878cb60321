#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <string>

#include "framework/Export.h"

/// The facts of this installation, as the platform file holds them or a host sets them.
struct PlatformFacts {
    struct Client {
        uint64_t id = 0;     ///< 0 means unknown
        int iscsiPort = -1;  ///< TCP port; negative: the property can't be read
    };

    std::string homeDirectory;  ///< holds moscsi_server.sh; no trailing "/"
    std::map<std::string, std::map<std::string, std::string>> strings;  ///< section, key, value
    std::string physicalMachine;                                        ///< this machine's name
    std::map<std::string, Client> clients;                              ///< by machine name
};

/// Looks up the installation's facts. They come from one TOML file, by default
/// /etc/moscsi/platform.toml, read at first use; a missing file gives the defaults (home directory
/// as installed, the host name, no client).
///
///     home = "/usr/local/libexec/moscsi"
///     machine = "storage1"
///     [strings.Base]
///     dBASEHOME = "/usr/local/libexec/moscsi"
///     [clients.storage1]
///     id = 2
///     iscsi_port = 3260
///
/// The home is an absolute path that a shell takes as it stands, an id isn't negative, a port is
/// from 1 to 65535; the file is read with the guards of framework/TomlFile.h. One that can't be
/// used is a line in the log, and the defaults count.
///
/// Thread: any; a change by setFacts is seen by calls that begin later.
class MO_EXPORT MOPlatformInfo {
  public:
    /// Reads a string.
    /// Returns: non-zero and the value in `*value` when it was found; otherwise 0, `*value`
    /// untouched.
    static int getString(const char* section, const char* key, std::string* value);

    /// The physical machine's name. The pointer stays valid until the facts are set anew.
    static const char* getPhysicalMachine();

    /// Replaces all facts, for a host that embeds the plug-in.
    static void setFacts(const PlatformFacts& facts);

    /// Reads facts from a file.
    /// Returns: an empty text, or one line that says what is wrong, with file and line; `facts` is
    /// then untouched.
    static std::string readFacts(const std::string& file, PlatformFacts& facts);
};

/// For the framework itself: the facts in force now; never null. The snapshot stays as it is when
/// they are set anew. Thread: any.
std::shared_ptr<const PlatformFacts> CurrentFacts();
