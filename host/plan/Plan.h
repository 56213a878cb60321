#pragma once

#include <sys/types.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "host/config/Config.h"
#include "host/plan/Storage.h"

/// What the configuration file comes to: every value filled in, every name computed, nothing left
/// that could be refused later for the file's sake. Plain data.

/// The highest number under which the kernel maps a LUN to an initiator.
inline constexpr uint32_t kMaxMappedLun = 255;

struct LunPlan {
    LunConfig config;
    std::string target;
    uint64_t size = 0;               ///< bytes
    std::optional<uint32_t> number;  ///< absent: automatic
    std::string serial;
    std::string object;     ///< storage object's name
    std::string cfgString;  ///< TCMU configuration string of a user LUN, short form
    std::string identity;   ///< of the backing file or device; empty for memory
    dev_t device = 0;       ///< of a block LUN
    bool missing = false;   ///< the backing file isn't there; `size` is 0 then, unless configured

    /// "LUN files": how lines for people call it.
    std::string Title() const { return "LUN " + config.name; }

    /// What the LUN doesn't do as it should, since the file says so: "2 fault rules, no
    /// durability"; empty when there is nothing.
    std::string FaultText() const;

    /// What a missing file may mean, and what to do: "/p isn't there: is ... mounted? ...".
    std::string MissingText(const std::string& file) const;
};

struct InitiatorPlan {
    std::string name;
    std::vector<size_t> luns;  ///< indices into the target's
};

struct TargetPlan {
    std::string name;
    std::vector<LunPlan> luns;
    std::vector<InitiatorPlan> initiators;
};

struct Plan {
    std::string file;
    int port = 3260;  ///< of the iSCSI service
    std::vector<TargetPlan> targets;

    bool HasUserLuns() const;

    /// The LUNs whose backing files aren't there.
    std::vector<const LunPlan*> Missing() const;

    /// Targets, LUNs, node ACLs and mappings together.
    size_t ObjectCount() const;

    /// The plan for people, one line an object.
    std::vector<std::string> Lines() const;
};

/// Checks everything that can be checked without touching the kernel's target, and makes the plan.
/// Returns: the plan; it may be used only when `problems` stayed empty.
/// Thread: any.
Plan MakePlan(const Config& config, int port, const Storage& storage, Problems& problems);
