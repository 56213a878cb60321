#include "host/config/Names.h"

#include <fmt/format.h>

#include <algorithm>
#include <cctype>
#include <regex>

namespace {

constexpr size_t kMaxIqnLength = 223;   // RFC 7143, 4.2.7.1
constexpr size_t kMaxPathLength = 255;  // the kernel's fd_dev_name and udev_path hold no more
constexpr size_t kMaxPrefixLength = 64;

bool HasUpperCase(const std::string& text) {
    return std::any_of(text.begin(), text.end(), [](unsigned char c) { return isupper(c) != 0; });
}

/// The faults that all texts have in common: `allowed` beside lower-case letters and digits.
std::string FaultOfText(const std::string& text, const std::string& allowed, size_t maxLength) {
    if (HasUpperCase(text))
        return "has upper-case letters, which targetcli would see in lower case: use lower case";
    for (const unsigned char c : text) {
        if (islower(c) != 0 || isdigit(c) != 0 ||
            (c != 0 && allowed.find(static_cast<char>(c)) != std::string::npos))
            continue;
        const std::string shown = isprint(c) != 0 ? fmt::format("'{}'", static_cast<char>(c))
                                                  : fmt::format("0x{:02x}", c);
        return fmt::format(
            "has the character {}, which isn't safe in a shell or in configfs: use "
            "a-z, 0-9 and {}",
            shown, allowed);
    }
    if (text.size() > maxLength)
        return fmt::format("is {} characters long: at most {} are allowed", text.size(), maxLength);
    return {};
}

}  // namespace

std::string FaultOfIqn(const std::string& name) {
    std::string fault = FaultOfText(name, ".:-", kMaxIqnLength);
    // targetcli wants a dot somewhere behind the domain's first part, too.
    static const std::regex form(
        "iqn\\.[0-9]{4}-(0[1-9]|1[0-2])\\.[a-z0-9][^:]*\\.[^:]*[a-z0-9]"
        "(:.+)?");
    if (fault.empty() && !std::regex_match(name, form))
        fault = "is no iSCSI qualified name: use the form iqn.2026-01.com.example:disks";
    return fault;
}

std::string FaultOfPath(const std::string& path) {
    std::string fault = FaultOfText(path, "/._:@+-", kMaxPathLength);
    if (fault.empty() && (!path.starts_with('/') || path.ends_with('/')))
        fault = "is no absolute path of a file or device: begin it with \"/\"";
    return fault;
}

std::string FaultOfSerialPrefix(const std::string& prefix) {
    return FaultOfText(prefix, "._-", kMaxPrefixLength);
}

std::string FaultOfLunName(const std::string& name) {
    std::string fault = FaultOfText(name, "._-", kMaxPrefixLength);
    if (fault.empty() && (name.empty() || name == "all"))
        fault = "can't name a LUN: use another text";
    return fault;
}
