// Stands in for targetcli: FakeTargetcli.h says what it answers, and reads what it was asked.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>

namespace {

std::string Unescape(const std::string& text) {
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        const bool escaped = text[i] == '\\' && ++i < text.size();
        out += escaped && text[i] == 'n' ? '\n' : text[i];
    }
    return out;
}

/// One line in one call, so that two of us never mix theirs.
void Append(const std::string& file, const std::string& line) {
    const int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (write(fd, line.data(), line.size()) < 0)
        perror("fake targetcli");
    close(fd);
}

}  // namespace

int main(int argc, char** argv) {
    const std::string directory = getenv("FAKE_TARGETCLI");
    std::string arguments;
    for (int i = 1; i < argc; ++i)
        arguments += (i > 1 ? " " : "") + std::string(argv[i]);
    Append(directory + "/calls", "begin " + arguments + "\n");

    // An answer: arguments, status, standard output, standard error; one a line, tabs in between.
    std::ifstream answers(directory + "/answers");
    std::string asked;
    std::string status;
    std::string out;
    std::string err;
    int result = 0;
    while (std::getline(answers, asked, '\t') && std::getline(answers, status, '\t') &&
           std::getline(answers, out, '\t') && std::getline(answers, err)) {
        if (asked != arguments)
            continue;
        fputs(Unescape(out).c_str(), stdout);
        fputs(Unescape(err).c_str(), stderr);
        result = std::stoi(status);
        break;
    }
    Append(directory + "/calls", "end " + arguments + "\n");
    return result;
}
