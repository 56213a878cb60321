// The plug-in's singleton starts the TCMU runner on a thread of its own; here tests run their own.

#include <vector>

#include "runner/Runner.h"

int tcmu_runner_main(int argc, char** argv) {
    static auto* kept = new std::vector<char*>;  // the runner may keep its arguments
    kept->assign(argv, argv + argc);
    return 0;
}

// That thread is never joined, by contract; nor are those that a stop has to leave.
extern "C" __attribute__((visibility("default"))) const char* __tsan_default_options() {
    return "report_thread_leaks=0";
}
