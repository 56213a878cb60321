// The runner's start on the real machine.

#include <pthread.h>

#include <cstring>
#include <filesystem>
#include <system_error>

#include "framework/ExceptionOf.h"
#include "framework/ThreadSignals.h"
#include "libtcmu/LibtcmuApi.h"
#include "runner/InterruptWait.h"
#include "runner/NetlinkFamily.h"
#include "runner/Runner.h"
#include "runner/RunnerEnvironment.h"
#include "util/Log.h"

namespace {

constexpr const char* kPathOption = "--handler-path=";

// Kept, as the contract allows. Handlers of other makers would be looked for below the path; ours
// is built in.
struct Arguments {
    const char* program;
    const char* handlerPath;
};
Arguments g_arguments;

bool ParseArguments(int argc, char** argv) {
    const size_t length = strlen(kPathOption);
    if (argc != 2 || argv == nullptr || argv[0] == nullptr || argv[1] == nullptr ||
        strncmp(argv[1], kPathOption, length) != 0) {
        MO_LOG(kLogError, "TCMU runner: expected a program name and %sPATH", kPathOption);
        return false;
    }
    g_arguments = {argv[0], argv[1] + length};
    MO_LOG(kTraceDetail, "TCMU runner: %s, handlers at \"%s\"", g_arguments.program,
           g_arguments.handlerPath);
    return true;
}

// libtcmu, the kernel and the plug-in's handler.
RunnerEnvironment RealEnvironment() {
    RunnerEnvironment environment;
    environment.tcmu = &RealLibtcmuApi();
    // The module first: asked for a family that it hasn't got, the kernel runs modprobe each time.
    environment.familyRegistered = [module = environment.moduleParameters] {
        std::error_code ignored;
        return std::filesystem::exists(module, ignored) && NetlinkFamilyRegistered(kTcmuFamily);
    };
    environment.makeHandler = MakePluginHandler;
    return environment;
}

}  // namespace

int tcmu_runner_main(int argc, char** argv) {
    if (!ParseArguments(argc, argv))
        return 1;
    pthread_setname_np(pthread_self(), "moscsi-runner");
    const ThreadSignals signals;
    int result = 1;
    const auto fault = ExceptionOf([&] {
        InterruptWait interrupt;
        result = RunRunner(RealEnvironment(), interrupt);
    });
    if (fault)
        MO_LOG(kLogError, "TCMU runner: %s", fault->c_str());
    return result;
}
