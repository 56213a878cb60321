#pragma once

#include <chrono>
#include <filesystem>
#include <string>

/// What the wrapper takes from its environment, read once at the start.
///
///   MOSCSI_RUN_DIR               directory of run-time state (/run/moscsi); the wrapper keeps its
///                                own below it, in targetcli/
///   MOSCSI_TARGETCLI_REAL        the real targetcli (otherwise the next one on PATH)
///   MOSCSI_TARGETCLI_TIMEOUT     seconds that one run of the wrapper may take (120)
///   MOSCSI_TARGETCLI_LOCK_WAIT   seconds of these that one other process may keep targetcli
///                                waiting for its lock (20)
///   MOSCSI_TARGETCLI_VERSION     the version that --version answers instead of the real one's, as
///                                long as the real one answers at all; for tests and for operators
///                                who want user backstores configured without targetcli
///                                ("2.1.fb41")
///   MOSCSI_TARGETCLI_FAST_ROAD   0: the real targetcli carries out every command (1)
///   MOSCSI_TARGETCLI_CLOSED      1: a new target's portal group isn't enabled, so that nobody can
///                                log in before whoever asks for this opens it (0)
///   MOSCSI_CONFIGFS_ROOT         the kernel target's tree (/sys/kernel/config/target)
///
/// Threads: plain data, copied freely.
struct Settings {
    std::filesystem::path stateDir;  ///< MOSCSI_RUN_DIR/targetcli
    std::filesystem::path configfsRoot;
    std::string real;     ///< empty: look on PATH
    std::string version;  ///< empty: what the real one answers
    bool fastRoad = true;
    bool closedTargets = false;
    std::chrono::seconds timeLimit;
    std::chrono::seconds lockWait;
};

/// Returns: true and the settings; false and one line that names the variable and what it may hold.
bool ReadSettings(Settings& settings, std::string& error);
