#include "host/plan/Plan.h"

#include <fmt/format.h>

#include "host/plan/Identity.h"

std::string LunPlan::FaultText() const {
    const size_t count = config.faults.rules.size();
    std::string text =
        count == 0 ? "" : fmt::format("{} fault rule{}", count, count == 1 ? "" : "s");
    if (!config.faults.durable)
        text += std::string(text.empty() ? "" : ", ") + "no durability";
    return text;
}

std::string LunPlan::MissingText(const std::string& file) const {
    return fmt::format(
        "{} of {}: {} isn't there: is the file system that holds it mounted? If it never was "
        "made: moscsi-host create {} {}",
        Title(), target, config.path, file, config.name);
}

bool Plan::HasUserLuns() const {
    for (const TargetPlan& target : targets)
        for (const LunPlan& lun : target.luns)
            if (lun.config.type == LunType::User)
                return true;
    return false;
}

std::vector<const LunPlan*> Plan::Missing() const {
    std::vector<const LunPlan*> missing;
    for (const TargetPlan& target : targets)
        for (const LunPlan& lun : target.luns)
            if (lun.missing)
                missing.push_back(&lun);
    return missing;
}

size_t Plan::ObjectCount() const {
    size_t count = targets.size();
    for (const TargetPlan& target : targets) {
        count += target.luns.size() + target.initiators.size();
        for (const InitiatorPlan& initiator : target.initiators)
            count += initiator.luns.size();
    }
    return count;
}

std::vector<std::string> Plan::Lines() const {
    std::vector<std::string> lines;
    for (const TargetPlan& target : targets) {
        lines.push_back(fmt::format("target {}", target.name));
        for (const LunPlan& lun : target.luns) {
            std::string kind = LunTypeName(lun.config.type);
            if (lun.config.type == LunType::User)
                kind += std::string(" on ") + BackingName(lun.config.backing);
            const std::string faults = lun.FaultText();
            lines.push_back(fmt::format("  LUN {} \"{}\": {} {}, {}{}, serial {}{}",
                                        lun.number ? std::to_string(*lun.number) : "automatic",
                                        lun.config.name, kind, lun.config.path, SizeText(lun.size),
                                        lun.missing ? " (its file isn't there)" : "", lun.serial,
                                        faults.empty() ? "" : ", with " + faults));
        }
        for (const InitiatorPlan& initiator : target.initiators) {
            std::string names;
            for (const size_t lun : initiator.luns)
                names += (names.empty() ? "" : ", ") + target.luns[lun].config.name;
            lines.push_back(fmt::format("  initiator {}: {}", initiator.name,
                                        names.empty() ? "no LUN" : names));
        }
    }
    return lines;
}
