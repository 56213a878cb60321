#include "tools/targetcli/Version.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <sstream>
#include <tuple>

namespace {

constexpr std::tuple kNewForms{2U, 1U, 43U};
constexpr std::string_view kNewFormsText = "2.1.fb43";

bool TakeNumber(std::string_view& text, unsigned& number) {
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (failure != std::errc())
        return false;
    text.remove_prefix(static_cast<size_t>(end - text.data()));
    return true;
}

bool TakeText(std::string_view& text, std::string_view expected) {
    if (!text.starts_with(expected))
        return false;
    text.remove_prefix(expected.size());
    return true;
}

}  // namespace

std::string OlderVersionForm(std::string_view version) {
    std::string_view rest = version;
    unsigned major = 0;
    unsigned minor = 0;
    unsigned patch = 0;
    if (!TakeNumber(rest, major) || !TakeText(rest, ".") || !TakeNumber(rest, minor))
        return {};
    if (TakeText(rest, ".")) {
        TakeText(rest, "fb");
        if (!TakeNumber(rest, patch))
            return {};
    }
    std::array<char, 48> numbers = {};
    snprintf(numbers.data(), numbers.size(), "%u.%u.fb%02u", major, minor, patch);
    std::string text = numbers.data() + std::string(rest);
    if (std::tuple(major, minor, patch) >= kNewForms && text < kNewFormsText)
        text = "2.1.fb99-" + std::string(version);
    return text;
}

std::string VersionIn(std::string_view output) {
    std::istringstream words{std::string(output)};
    std::string before;
    for (std::string word; words >> word; before = word)
        if (before == "version" && !OlderVersionForm(word).empty())
            return word;
    return {};
}
