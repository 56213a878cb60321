#include "host/service/ProcessStart.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include "framework/UniqueFd.h"

namespace {

// The runner's and the bus's, the status's, the lock, pipes of a command that runs.
constexpr size_t kOwnDescriptors = 64;

// A user LUN's UIO device, its thread's wake-up, its file and that one's ring; one to spare. Others
// have the file that is kept locked, at most.
constexpr size_t kDescriptorsPerUserLun = 5;

}  // namespace

bool SetRightWhatWasInherited() {
    umask(S_IWGRP | S_IWOTH);
    for (;;) {
        UniqueFd null(open("/dev/null", O_RDWR));  // the lowest number that is free
        if (!null.Valid())
            return false;
        if (null.Get() > STDERR_FILENO)
            return true;
        null.Release();
    }
}

size_t DescriptorsFor(const Plan& plan) {
    size_t count = kOwnDescriptors;
    for (const TargetPlan& target : plan.targets)
        for (const LunPlan& lun : target.luns)
            count += lun.config.type == LunType::User ? kDescriptorsPerUserLun : 1;
    return count;
}

std::string RaiseDescriptorLimit(const Plan& plan) {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0)
        return {};
    rlimit raised{limit.rlim_max, limit.rlim_max};
    if (setrlimit(RLIMIT_NOFILE, &raised) != 0)
        raised = limit;
    const size_t needed = DescriptorsFor(plan);
    if (raised.rlim_cur >= needed)
        return {};
    return fmt::format(
        "this process may open {} files, and {} needs about {}: raise the hard limit (ulimit -n, "
        "or LimitNOFILE= of a service), or LUNs will fail to open",
        raised.rlim_cur, plan.file, needed);
}
