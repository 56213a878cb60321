#include "framework/TomlFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sstream>

#include "framework/UniqueFd.h"

namespace {

constexpr size_t kMaxBytes = 1 << 20;
constexpr int kMaxNesting = 64;

bool NestsTooDeep(const std::string& text) {
    int depth = 0;
    for (const char c : text) {
        if (c == '[' || c == '{')
            ++depth;
        else if ((c == ']' || c == '}') && depth > 0)
            --depth;
        if (depth > kMaxNesting)
            return true;
    }
    return false;
}

/// The first line of what the parser says, without its own function's name.
std::string ReasonOf(const std::exception& fault) {
    std::string text = fault.what();
    text.resize(std::min(text.find('\n'), text.size()));
    const size_t origin = text.find("toml::");  // "[error] toml::function: reason"
    const size_t reason = origin == std::string::npos ? std::string::npos : text.find(": ", origin);
    return reason == std::string::npos ? "it can't be read" : text.substr(reason + 2);
}

TomlFault SyntaxFault(const std::exception& fault) {
    const auto* syntax = dynamic_cast<const toml::exception*>(&fault);
    const unsigned line = syntax == nullptr ? 0 : static_cast<unsigned>(syntax->location().line());
    const std::string reason = ReasonOf(fault);
    const size_t name = reason.find("(\"");
    const size_t end = reason.find("\") already exists");
    if (name != std::string::npos && end != std::string::npos)
        return {line, "has " + reason.substr(name + 1, end - name) +
                          " a second time: leave one of the two"};
    return {line, "is not TOML: " + reason + ": mend the line"};
}

std::string NotRead(const std::string& why) {
    return "can't be read (" + why + "): name a TOML file";
}

}  // namespace

std::optional<std::string> ReadTomlText(const std::string& file, TomlFault& fault) {
    const UniqueFd opened(open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    struct stat found = {};
    if (!opened.Valid() || fstat(opened.Get(), &found) != 0) {
        fault = {0, NotRead(strerror(errno))};
        return std::nullopt;
    }
    if (!S_ISREG(found.st_mode)) {
        fault = {0, NotRead("it is no regular file")};
        return std::nullopt;
    }
    std::string text(kMaxBytes + 1, '\0');
    size_t length = 0;
    while (length < text.size()) {
        const ssize_t got = read(opened.Get(), text.data() + length, text.size() - length);
        if (got < 0 && errno != EINTR) {
            fault = {0, NotRead(strerror(errno))};
            return std::nullopt;
        }
        if (got == 0)
            break;
        length += static_cast<size_t>(std::max<ssize_t>(got, 0));
    }
    text.resize(length);
    return text;
}

std::optional<toml::value> ParseToml(const std::string& text, const std::string& file,
                                     TomlFault& fault) {
    if (text.size() > kMaxBytes || NestsTooDeep(text)) {
        fault = {0,
                 "can't be read: it is longer than 1 MiB, or brackets nest more than 64 deep: name "
                 "a TOML file"};
        return std::nullopt;
    }
    if (const std::ptrdiff_t bad = toml::detail::check_utf8_validity(text); bad >= 0) {
        const auto line = 1 + std::count(text.begin(), text.begin() + bad, '\n');
        fault = {static_cast<unsigned>(line),
                 "has a character that isn't UTF-8: save the file as UTF-8"};
        return std::nullopt;
    }
    try {
        std::istringstream stream(text);
        return toml::parse(stream, file);
    } catch (const std::exception& syntax) {
        fault = SyntaxFault(syntax);
        return std::nullopt;
    }
}
