#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

/// Why the creation of a user backstore failed. targetcli reports every cause with one and the same
/// line, also for an object that is there already, which the plug-in must take for a success when
/// it applies an unchanged configuration again; and only then, since "exists" for an object of
/// another size or configuration would give an initiator another LUN's data.
///
/// Looks at targetcli's arguments and at configfs; changes neither.

/// `/backstores/user:HANDLER create name=NAME size=SIZE cfgstring=CONFIG ...`
struct UserBackstoreCreate {
    std::string handler;
    std::string name;
    std::string config;
    std::optional<uint64_t> size;  ///< nothing when it isn't a plain number of bytes

    /// Returns: nothing for other arguments.
    static std::optional<UserBackstoreCreate> Parse(const std::vector<std::string>& arguments);
};

/// The first line to report for a creation that failed and for which targetcli itself reports
/// `reported`. It says "exists" if and only if a configured object of that name, configuration and
/// size is in the kernel; otherwise it is what differs, or `reported`.
std::string ExplainFailedCreate(const UserBackstoreCreate& create,
                                const std::filesystem::path& configfsRoot,
                                const std::string& reported);
