#include "framework/MoProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>

#include "framework/UniqueFd.h"

namespace {

struct Pipe {
    UniqueFd readEnd;
    UniqueFd writeEnd;
    const bool made = MakePipe(readEnd, writeEnd) == 0;
};

/// Reads both pipes to their ends at once: a child that fills one while we wait for the other would
/// never end.
void Collect(const Pipe& outPipe, std::string* out, const Pipe& errPipe, std::string* err) {
    std::array<pollfd, 2> fds{
        {{outPipe.readEnd.Get(), POLLIN, 0}, {errPipe.readEnd.Get(), POLLIN, 0}}};
    const std::array<std::string*, 2> texts{out, err};
    std::array<char, 16384> buffer;  // NOLINT(cppcoreguidelines-pro-type-member-init)

    while (fds[0].fd >= 0 || fds[1].fd >= 0) {
        if (poll(fds.data(), fds.size(), -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        for (size_t i = 0; i < fds.size(); ++i) {
            if (fds.at(i).fd < 0 || fds.at(i).revents == 0)
                continue;
            const ssize_t got = read(fds.at(i).fd, buffer.data(), buffer.size());
            if (got > 0 && texts.at(i) != nullptr)
                texts.at(i)->append(buffer.data(), static_cast<size_t>(got));
            else if (got == 0 || (got < 0 && errno != EINTR))
                fds.at(i).fd = -1;
        }
    }
}

/// Starts the shell. The child gets the default signal set-up: a host that blocks or ignores
/// signals must not hand that to a service script. A SIGHUP that is ignored (nohup) stays so: who
/// did that meant all that the terminal's end would reach.
bool Spawn(const std::string& command, const Pipe& outPipe, const Pipe& errPipe, pid_t& pid) {
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    posix_spawn_file_actions_init(&actions);
    posix_spawnattr_init(&attributes);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_adddup2(&actions, outPipe.writeEnd.Get(), 1);
    posix_spawn_file_actions_adddup2(&actions, errPipe.writeEnd.Get(), 2);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    sigset_t none;
    sigset_t all;
    sigemptyset(&none);
    sigfillset(&all);
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler == SIG_IGN)
        sigdelset(&all, SIGHUP);
    posix_spawnattr_setsigmask(&attributes, &none);
    posix_spawnattr_setsigdefault(&attributes, &all);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

    std::string text = command;
    std::string shell = "sh";
    std::string option = "-c";
    std::array<char*, 4> argv{shell.data(), option.data(), text.data(), nullptr};
    const int error = posix_spawn(&pid, "/bin/sh", &actions, &attributes, argv.data(), environ);
    posix_spawnattr_destroy(&attributes);
    posix_spawn_file_actions_destroy(&actions);
    return error == 0;
}

}  // namespace

int MoProcess::system(const std::string& command, std::string* standardOutput,
                      std::string* standardError, int /*reserved*/, bool /*reservedFlag*/) {
    Pipe outPipe;
    Pipe errPipe;
    pid_t pid = -1;
    if (!outPipe.made || !errPipe.made || !Spawn(command, outPipe, errPipe, pid))
        return -1;
    outPipe.writeEnd.Close();
    errPipe.writeEnd.Close();
    Collect(outPipe, standardOutput, errPipe, standardError);

    int status = 0;
    while (waitpid(pid, &status, 0) < 0)
        if (errno != EINTR)
            return -1;
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}
