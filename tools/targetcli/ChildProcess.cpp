#include "tools/targetcli/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string_view>

namespace {

std::vector<std::string> EnvironmentFor(const Command& command) {
    std::vector<std::string> result = {"LC_ALL=C", "PYTHONWARNINGS=ignore",
                                       "TARGETCLI_HOME=" + command.home};
    for (char** entry = environ; *entry != nullptr; ++entry) {
        const std::string_view text = *entry;
        const std::string_view name = text.substr(0, text.find('='));
        if (name != "LC_ALL" && name != "PYTHONWARNINGS" && name != "TARGETCLI_HOME")
            result.emplace_back(text);
    }
    return result;
}

std::vector<char*> Pointers(std::vector<std::string>& texts) {
    std::vector<char*> result;
    result.reserve(texts.size() + 1);
    for (std::string& text : texts)
        result.push_back(text.data());
    result.push_back(nullptr);
    return result;
}

// The child's surroundings: system calls only.
void BecomeChild(int outFd, int errFd, pid_t parent) {
    setpgid(0, 0);
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent)
        _exit(127);  // the wrapper died before its death could be signalled
    if (isatty(STDIN_FILENO) != 0) {
        // A process group in the background would be stopped as soon as it reads.
        const int nothing = open("/dev/null", O_RDONLY);
        dup2(nothing, STDIN_FILENO);
    }
    dup2(outFd, STDOUT_FILENO);
    dup2(errFd, STDERR_FILENO);
    signal(SIGPIPE, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

// Ends in exec or with errno written to `failureFd`, which a successful exec closes.
[[noreturn]] void BecomeProgram(const char* program, char** arguments, char** variables,
                                int failureFd) {
    // Marked rather than closed: the descriptor that reports a failing exec is among them.
    close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC);
    execve(program, arguments, variables);
    const int error = errno;
    [[maybe_unused]] const ssize_t written = write(failureFd, &error, sizeof error);
    _exit(127);
}

}  // namespace

ChildProcess::~ChildProcess() {
    Kill(std::chrono::milliseconds(0));
}

int ChildProcess::Start(const Command& command, int outFd, int errFd) {
    std::vector<std::string> words = {command.program};
    words.insert(words.end(), command.arguments.begin(), command.arguments.end());
    std::vector<std::string> variables = EnvironmentFor(command);
    const std::vector<char*> argumentVector = Pointers(words);
    const std::vector<char*> variableVector = Pointers(variables);

    UniqueFd failure;
    UniqueFd childFailure;
    if (const int error = MakePipe(failure, childFailure); error != 0)
        return error;
    const pid_t parent = getpid();
    const pid_t pid = fork();
    if (pid == 0) {
        BecomeChild(outFd, errFd, parent);
        if (command.work) {
            childFailure.Close();  // or the wrapper waits for its end, should close_range fail
            close_range(STDERR_FILENO + 1, ~0U, 0);
            _exit(command.work());
        }
        BecomeProgram(command.program.c_str(), const_cast<char**>(argumentVector.data()),
                      const_cast<char**>(variableVector.data()), childFailure.Get());
    }
    int error = pid < 0 ? errno : 0;
    childFailure.Close();
    if (pid > 0) {
        m_pid = pid;
        // Ends with the exec at once: the other end is closed by it, or carries the error.
        if (read(failure.Get(), &error, sizeof error) == sizeof error) {
            Reap();
        } else if (m_exit = UniqueFd(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
                   !m_exit.Valid()) {
            error = errno;
            Kill(std::chrono::milliseconds(0));
        }
    }
    return error;
}

int ChildProcess::Reap() {
    // Before the status is taken: until then nothing else can be given the group's number.
    ::kill(-m_pid, SIGKILL);
    int status = 0;
    while (waitpid(m_pid, &status, 0) < 0 && errno == EINTR) {
    }
    m_pid = -1;
    return status;
}

bool ChildProcess::Kill(std::chrono::milliseconds patience) {
    if (m_pid <= 0)
        return true;
    ::kill(-m_pid, SIGKILL);
    pollfd ended = {m_exit.Get(), POLLIN, 0};
    if (m_exit.Valid() && poll(&ended, 1, static_cast<int>(patience.count())) == 1) {
        Reap();
        return true;
    }
    m_pid = -1;
    return false;
}
