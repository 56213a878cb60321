#pragma once

#include <filesystem>
#include <string>

/// Where this installation is, and what the machine must have before the plug-in is loaded.

struct Environment {
    std::filesystem::path home;            ///< holds moscsi_server.sh, and bin/targetcli
    std::filesystem::path library;         ///< the plug-in
    std::filesystem::path runDirectory;    ///< lock, socket, wrapper's state
    std::filesystem::path stateDirectory;  ///< what outlives a reboot: which LUNs were made here
    std::filesystem::path configfs;        ///< the kernel target's root
    int port = 3260;                       ///< of the iSCSI service
    bool portIsDefault = false;            ///< the machine has none of its own
};

/// Finds the installation from this program's own place, reads the platform file (`platformFile`;
/// a missing one gives the defaults), and makes its facts those of the framework.
/// MOSCSI_RUN_DIR, MOSCSI_STATE_DIR and MOSCSI_CONFIGFS_ROOT replace the directories.
/// Returns: empty, or one line that says what is wrong with the file.
/// Thread: one, before others look at facts.
std::string FindEnvironment(const std::string& platformFile, Environment& environment);

/// Puts the wrapper's directory first on PATH, and the system's behind.
void PrepareSearchPath(const Environment& environment);

/// Returns: empty, or one line about the first thing that is missing: root, the real targetcli,
/// the system bus.
std::string MissingPrerequisite(const Environment& environment);

/// What the plug-in's start couldn't say: runs the service script again, then targetcli, and
/// returns the last words of the first that fails; empty when both succeed.
std::string StartComplaint(const Environment& environment);

/// The version by which the plug-in chooses its manner, the third word of what targetcli says;
/// empty when targetcli fails, because somebody holds its lock, say.
std::string TargetcliVersion();
