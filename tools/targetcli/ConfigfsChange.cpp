#include "tools/targetcli/ConfigfsChange.h"

#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "framework/UniqueFd.h"

namespace {

namespace fs = std::filesystem;

std::vector<std::string> NamesIn(const fs::path& directory, fs::file_type wanted) {
    std::vector<std::string> names;
    std::error_code ignored;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, ignored))
        if (entry.symlink_status(ignored).type() == wanted)
            names.push_back(entry.path().filename());
    std::sort(names.begin(), names.end());
    return names;
}

std::string RandomName() {
    std::array<unsigned char, 5> bytes = {};
    if (getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()))
        throw SlowRoad("no random number");
    std::array<char, 11> text = {};
    for (size_t i = 0; i < bytes.size(); ++i)
        snprintf(&text[2 * i], 3, "%02x", bytes[i]);
    return text.data();
}

}  // namespace

void Require(bool certain, const char* otherwise) {
    if (!certain)
        throw SlowRoad(otherwise);
}

bool ConfigfsChange::s_begun = false;

void ConfigfsChange::MakeDirectory(const Path& path) {
    s_begun = true;
    if (mkdir(path.c_str(), 0777) != 0)
        Refused("mkdir", path, errno);
    m_made.push_back(path);
}

void ConfigfsChange::MakeLink(const Path& to, const Path& directory) {
    const Path path = directory / RandomName();
    s_begun = true;
    if (symlink(to.c_str(), path.c_str()) != 0)
        Refused("symlink", path, errno);
    m_made.push_back(path);
}

bool ConfigfsChange::TryWrite(const Path& file, const std::string& text) {
    s_begun = true;
    const UniqueFd fd(open(file.c_str(), O_WRONLY | O_CLOEXEC));
    if (!fd.Valid() ||
        write(fd.Get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
        return false;
    // What a directory of ours holds goes with it.
    if (m_made.empty())
        m_lasting = true;
    return true;
}

void ConfigfsChange::Write(const Path& file, const std::string& text) {
    if (!TryWrite(file, text))
        Refused("write", file, errno);
}

void ConfigfsChange::WriteAsking(const Path& file, const std::string& text) {
    if (!TryWrite(file, text))
        Refused("write", file, errno, true);
}

void ConfigfsChange::Remove(const Path& path) {
    s_begun = true;
    if (remove(path.c_str()) != 0)
        Refused("remove", path, errno);
    m_lasting = true;
}

void ConfigfsChange::Refused(const char* step, const Path& path, int error, bool final) {
    const std::string cause =
        std::string(step) + " " + path.string() + ": " + strerrorname_np(error);
    const bool nothingLeft = TakeBack();
    if (nothingLeft && !final)
        throw SlowRoad("the kernel refused " + cause);
    // The plug-in takes a line with "exists" for success.
    const bool misread = cause.find("exists") != std::string::npos;
    throw StoppedHalfWay("the kernel refused " + (misread ? std::string(step) : cause) +
                         (nothingLeft ? "; nothing of it is left"
                                      : ", and part of the command is done: see configfs"));
}

bool ConfigfsChange::TakeBack() {
    std::for_each(m_made.rbegin(), m_made.rend(), [](const Path& path) { remove(path.c_str()); });
    struct stat status = {};
    return !m_lasting && std::none_of(m_made.begin(), m_made.end(), [&](const Path& path) {
        return lstat(path.c_str(), &status) == 0;
    });
}

std::vector<std::string> DirectoriesIn(const fs::path& directory) {
    return NamesIn(directory, fs::file_type::directory);
}

std::vector<std::string> LinksIn(const fs::path& directory) {
    return NamesIn(directory, fs::file_type::symlink);
}

fs::path OnlyLinkIn(const fs::path& directory) {
    const std::vector<std::string> links = LinksIn(directory);
    std::error_code failure;
    return links.size() == 1 ? fs::canonical(directory / links[0], failure) : fs::path();
}
