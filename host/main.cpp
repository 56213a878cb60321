// The reference host: drives the plug-in from a configuration file.

#include <fmt/format.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "framework/QueuedOutput.h"
#include "host/kernel/Compare.h"
#include "host/service/CreateFiles.h"
#include "host/service/HostLock.h"
#include "host/service/ProcessStart.h"
#include "host/service/Serve.h"
#include "host/status/HostStatus.h"
#include "host/status/StatusSocket.h"

namespace {

constexpr int kOk = 0;
constexpr int kFailed = 1;
constexpr int kWrongUsage = 2;

bool Complain(Console& console, const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
        console.Complain(line);
    return !lines.empty();
}

/// The file, checked; with a complaint for everything in it that can't be.
bool MakePlanOf(const std::string& file, const Environment& environment, Console& console,
                Config& config, Plan& plan) {
    Problems problems;
    config = ReadConfig(file, problems);
    StorageRoots roots;
    roots.ours = {getpid(), HostLock::Holder(environment.runDirectory)};
    if (problems.Empty())
        plan = MakePlan(config, environment.port, Storage(roots), problems);
    return !Complain(console, problems.Lines());
}

int Check(const Plan& plan, const Environment& environment, Console& console) {
    if (Complain(console, NaaClashes(plan, ReadConfigfs(environment.configfs))))
        return kFailed;
    console.Say(fmt::format("iSCSI service port: {}{}", environment.port,
                            environment.portIsDefault ? " (the platform file names none)" : ""));
    for (const std::string& line : plan.Lines())
        console.Say(line);
    for (const LunPlan* lun : plan.Missing())
        console.Complain(lun->MissingText(plan.file));
    if (!plan.Missing().empty())
        return kFailed;
    console.Say(fmt::format("{} is good", plan.file));
    return kOk;
}

int Status(const Environment& environment, bool asJson, Console& console) {
    std::string error;
    const std::string answer = AskStatus(environment.runDirectory / "host.sock", error);
    if (!error.empty()) {
        console.Complain(error);
        return kFailed;
    }
    const auto status = nlohmann::ordered_json::parse(answer, nullptr, false);
    if (status.is_discarded()) {
        console.Complain("the running moscsi-host's answer is cut off: ask again");
        return kFailed;
    }
    if (status.contains("error")) {
        console.Complain("the running moscsi-host has no status: " + status["error"].dump());
        return kFailed;
    }
    std::string text = asJson ? status.dump(2) : StatusTable(status);
    if (text.ends_with('\n'))
        text.pop_back();
    console.Say(text);
    return kOk;
}

}  // namespace

int main(int argc, char** argv) {
    if (!SetRightWhatWasInherited())
        return kFailed;  // with nowhere to say it
    CLI::App app{"Serves iSCSI LUNs through the kernel's target, as a configuration file says."};
    app.require_subcommand(1);
    app.set_help_flag();
    app.set_help_all_flag("-h,--help", "this help, or a subcommand's");
    app.set_version_flag("--version", "moscsi-host " MOSCSI_VERSION);
    std::string platformFile = "/etc/moscsi/platform.toml";
    app.add_option("--platform-file", platformFile,
                   "facts of this machine: home directory, service port")
        ->capture_default_str();

    std::string file;
    std::string library;
    ServeOptions options;
    bool asJson = false;
    CLI::App* check = app.add_subcommand("check", "check a configuration file and print the plan");
    check->add_option("FILE", file, "configuration file (docs/configuration.md)")->required();
    CreateOptions creation;
    CLI::App* create = app.add_subcommand("create", "make LUNs' backing files, once, empty");
    create->add_option("FILE", file, "configuration file (docs/configuration.md)")->required();
    create->add_option("LUN", creation.luns, "names of LUNs (TARGET/NAME where several have one)")
        ->required();
    create->add_flag("--anew", creation.anew,
                     "also for a LUN that was made or served here before: its data is gone, and "
                     "initiators take the empty file for the same disk");
    CLI::App* serve = app.add_subcommand("serve",
                                         "serve what a configuration file says, until "
                                         "SIGINT or SIGTERM");
    serve->add_option("FILE", file, "configuration file (docs/configuration.md)")->required();
    serve->add_option("--library", library, "the plug-in, if not the installed one");
    serve
        ->add_option("--log-level", options.logLevel,
                     "-1 errors, 0 confirmations, 1 progress, 2 output of commands, 6 everything")
        ->check(CLI::Range(-1, 6));
    serve->add_flag("--discard-lost-memory", options.discardLostMemory,
                    "serve a memory LUN empty whose data died with an earlier process");
    CLI::App* status = app.add_subcommand("status", "show what the running host does");
    status->add_flag("--json", asJson, "as JSON");
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& fault) {
        return app.exit(fault) == 0 ? kOk : kWrongUsage;
    }

    StandardConsole console;
    Environment environment;
    if (const std::string fault = FindEnvironment(platformFile, environment); !fault.empty()) {
        console.Complain(fault);
        return kFailed;
    }
    if (!library.empty())
        environment.library = library;
    if (status->parsed())
        return Status(environment, asJson, console);

    Config config;
    Plan plan;
    if (!MakePlanOf(file, environment, console, config, plan))
        return kFailed;
    if (check->parsed())
        return Check(plan, environment, console);
    if (create->parsed())
        return CreateFiles(plan, environment, creation, console);
    // The plug-in's threads aren't joined: they must not meet destructors of static objects.
    QueuedConsole queued;
    const int result = Serve(plan, config, environment, options, queued);
    QueuedOutput::Flush();
    _exit(result);
}
