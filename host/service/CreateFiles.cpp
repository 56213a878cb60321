#include "host/service/CreateFiles.h"

#include <fmt/format.h>

#include <algorithm>
#include <deque>

#include "host/data/NewFile.h"
#include "host/kernel/ConfigfsView.h"
#include "host/kernel/PlanObjects.h"
#include "host/plan/Identity.h"
#include "host/plan/StorageCheck.h"
#include "host/service/LunRecord.h"

namespace {

/// One run: what is asked for, checked as a whole before anything is made.
class Creation {
  public:
    Creation(const Plan& plan, const Environment& environment, const CreateOptions& options,
             Console& console)
        : m_plan(plan),
          m_options(options),
          m_console(console),
          m_record(environment.stateDirectory),
          m_configfs(ReadConfigfs(environment.configfs)) {}

    bool Run();

  private:
    std::string Find(const std::string& name);
    std::string FaultOf(const LunPlan& lun) const;
    bool Choose();
    bool MakeDrafts();
    bool Publish();

    bool Fail(const std::string& line) {
        m_console.Complain(line);
        return false;
    }

    const Plan& m_plan;
    const CreateOptions& m_options;
    Console& m_console;
    LunRecord m_record;
    const ConfigfsView m_configfs;
    std::vector<const LunPlan*> m_luns;
    std::deque<NewFile> m_files;  // in the order of m_luns
};

/// Takes the LUN of that name. Returns: empty, or why there is none.
std::string Creation::Find(const std::string& name) {
    std::vector<const LunPlan*> found;
    for (const TargetPlan& target : m_plan.targets)
        for (const LunPlan& lun : target.luns)
            if (name == lun.config.name || name == lun.target + "/" + lun.config.name)
                found.push_back(&lun);
    if (found.empty())
        return fmt::format("{} has no LUN \"{}\": name one that it has", m_plan.file, name);
    if (found.size() > 1)
        return fmt::format("several targets have a LUN \"{}\": name it as {}/{}", name,
                           found[0]->target, name);
    if (std::find(m_luns.begin(), m_luns.end(), found[0]) == m_luns.end())
        m_luns.push_back(found[0]);
    return {};
}

/// Why the LUN's file can't be made; empty when it can.
std::string Creation::FaultOf(const LunPlan& lun) const {
    const std::string& path = lun.config.path;
    if (MediumOf(lun.config) != Medium::File)
        return fmt::format("{} has no file that could be made: name a LUN on a file", lun.Title());
    if (!lun.missing)
        return fmt::format("{}: {} is there already, and stays as it is", lun.Title(), path);
    if (!lun.config.size)
        return fmt::format("{} has no size to make {} with: add size = \"...\"", lun.Title(), path);
    const auto directory = std::filesystem::path(path).parent_path();
    if (std::error_code ignored; !std::filesystem::is_directory(directory, ignored))
        return fmt::format(
            "{}: the directory {} isn't there: mount the file system that holds it, or make it",
            lun.Title(), directory.string());
    if (!m_options.anew && (m_record.Knows(lun) || ObjectOf(lun, m_configfs) != nullptr))
        return fmt::format(
            "{} of {} was made or served here before: is the file system that holds {} mounted? "
            "--anew makes it again, empty, and initiators take it for the same disk",
            lun.Title(), lun.target, path);
    return {};
}

bool Creation::Choose() {
    if (const std::string fault = m_record.Read(); !fault.empty())
        return Fail(fault);
    std::vector<std::string> faults;
    for (const std::string& name : m_options.luns)
        faults.push_back(Find(name));
    for (const LunPlan* lun : m_luns)
        faults.push_back(FaultOf(*lun));
    bool good = true;
    for (const std::string& fault : faults)
        good = (fault.empty() || Fail(fault)) && good;
    return good;
}

bool Creation::MakeDrafts() {
    std::string error;
    for (const LunPlan* lun : m_luns)
        if (!m_files.emplace_back().Make(lun->config.path, lun->size, lun->config.provisioning,
                                         error))
            return Fail(fmt::format("{}: {}", lun->Title(), error));
    return true;
}

bool Creation::Publish() {
    std::vector<LunRecord::Noted> noted;
    std::vector<const LunPlan*> fresh;
    for (const LunPlan* lun : m_luns) {
        noted.emplace_back(lun, std::nullopt);
        if (!m_record.Knows(*lun))
            fresh.push_back(lun);
    }
    // First, so that no file is ever there that isn't known.
    if (const std::string fault = m_record.Note(noted); !fault.empty())
        return Fail(fault);
    std::string error;
    for (size_t i = 0; i < m_files.size(); ++i) {
        if (m_files[i].Publish(error))
            continue;
        Fail(fmt::format("{}: {}", m_luns[i]->Title(), error));
        while (i-- > 0)
            m_files[i].Withdraw();
        if (const std::string fault = m_record.Forget(fresh); !fault.empty())
            Fail(fault);
        return false;
    }
    return true;
}

bool Creation::Run() {
    if (!Choose() || !MakeDrafts() || !Publish())
        return Fail("nothing was made");
    for (const LunPlan* lun : m_luns)
        m_console.Say(fmt::format("made {} of {}: {}, {}, {}, serial {}", lun->Title(), lun->target,
                                  lun->config.path, SizeText(lun->size),
                                  ProvisioningName(lun->config.provisioning), lun->serial));
    return true;
}

}  // namespace

int CreateFiles(const Plan& plan, const Environment& environment, const CreateOptions& options,
                Console& console) {
    return Creation(plan, environment, options, console).Run() ? 0 : 1;
}
