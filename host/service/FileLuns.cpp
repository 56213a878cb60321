#include "host/service/FileLuns.h"

#include <fmt/format.h>

#include "host/kernel/PlanObjects.h"
#include "host/plan/StorageCheck.h"

std::vector<std::string> FileLuns::Missing(const ConfigfsView& before) const {
    std::vector<std::string> lines;
    for (const LunPlan* lun : m_plan.Missing()) {
        lines.push_back(lun->MissingText(m_plan.file));
        const char* becomes = "stays as the kernel has it, on the file that it has open";
        if (StaysOut(*lun, before))
            becomes = "stays out";
        else if (lun->config.type == LunType::User)
            becomes = "answers NOT READY";
        lines.push_back(fmt::format("{} {}; the others are served", lun->Title(), becomes));
    }
    return lines;
}

std::string FileLuns::LockKernelFiles() {
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns) {
            if (lun.config.type != LunType::File || lun.missing)
                continue;
            std::string error;
            if (!m_kernelFiles.emplace_back().Open(lun.config.path, lun.size, error))
                return fmt::format("{}: {}", lun.Title(), error);
        }
    return {};
}

std::string FileLuns::Note(const ConfigfsView& before, const NumberOfLun& given) {
    std::vector<LunRecord::Noted> noted;
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (MediumOf(lun.config) == Medium::File && !StaysOut(lun, before))
                noted.emplace_back(&lun, given(lun));
    return m_record.Note(noted);
}
