#include "tools/targetcli/TemporaryDirectory.h"

#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kPrefix = "run.";

void RemoveLeftovers(const fs::path& parent) {
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(parent, ignored)) {
        const std::string name = entry.path().filename();
        pid_t owner = 0;
        if (name.starts_with(kPrefix) &&
            std::from_chars(name.data() + kPrefix.size(), name.data() + name.size(), owner).ec ==
                std::errc() &&
            kill(owner, 0) != 0 && errno == ESRCH)
            fs::remove_all(entry.path(), ignored);
    }
}

}  // namespace

TemporaryDirectory::~TemporaryDirectory() {
    if (!m_path.empty()) {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
}

bool TemporaryDirectory::Make(const fs::path& parent, std::string& error) {
    std::error_code failure;
    fs::create_directories(parent, failure);
    RemoveLeftovers(parent);
    std::string name = parent / (std::string(kPrefix) + std::to_string(getpid()) + ".XXXXXX");
    if (failure || mkdtemp(name.data()) == nullptr) {
        const int number = failure ? failure.value() : errno;
        error = "targetcli needs a directory of its own in " + parent.string() + ": " +
                std::error_code(number, std::generic_category()).message();
        return false;
    }
    m_path = name;
    return true;
}

int TemporaryDirectory::RenameTo(const fs::path& name) {
    std::error_code failure;
    fs::rename(m_path, name, failure);
    if (!failure)
        m_path.clear();
    return failure.value();
}
