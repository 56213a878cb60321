#include "tools/targetcli/UserBackstoreCheck.h"

#include <strings.h>

#include <charconv>
#include <string_view>

#include "framework/SmallFile.h"

namespace {

namespace fs = std::filesystem;

constexpr std::string_view kUserPath = "/backstores/user:";

std::optional<uint64_t> ParseSize(std::string_view text) {
    uint64_t value = 0;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (failure != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    return value;
}

struct KernelObject {
    std::string config;
    std::string size;
    bool enabled = true;
};

// The kernel's `info` has "... Config: SUBTYPE/CONFIG Size: BYTES ..." behind a line that has a
// "SectorSize: " of its own.
KernelObject ReadObject(const fs::path& directory) {
    constexpr std::string_view kConfig = "Config: ";
    constexpr std::string_view kSize = " Size: ";
    constexpr std::string_view kBlank = " \n";
    KernelObject object;
    const std::string info = ReadSmallFile(directory / "info").value_or("");
    const size_t config = info.find(kConfig);
    const size_t size = info.find(kSize, config);
    if (config != std::string::npos && size != std::string::npos) {
        object.config = info.substr(config + kConfig.size(), size - config - kConfig.size());
        const size_t digits = size + kSize.size();
        object.size = info.substr(digits, info.find_first_of(kBlank, digits) - digits);
    }
    object.enabled = ReadSmallFile(directory / "enable") == "1\n";
    return object;
}

std::optional<KernelObject> FindObject(const fs::path& configfsRoot, const std::string& name) {
    std::error_code ignored;
    for (const fs::directory_entry& hba : fs::directory_iterator(configfsRoot / "core", ignored)) {
        const fs::path directory = hba.path() / name;
        if (hba.path().filename().string().starts_with("user_") && fs::exists(directory, ignored))
            return ReadObject(directory);
    }
    return std::nullopt;
}

// The sub-type may come lower-cased and the kernel keeps it so; what follows it is exact.
bool SameConfig(const std::string& kernel, const UserBackstoreCreate& create) {
    const size_t slash = kernel.find('/');
    return slash != std::string::npos && slash == create.handler.size() &&
           strncasecmp(kernel.c_str(), create.handler.c_str(), slash) == 0 &&
           kernel.substr(slash + 1) == create.config;
}

bool SoundsLikeSuccess(const std::string& line) {
    return line.find("exists") != std::string::npos || line.find("Exists") != std::string::npos;
}

std::string WhatDiffers(const KernelObject& object, const UserBackstoreCreate& create) {
    if (!SameConfig(object.config, create))
        return "another configuration (" + object.config + ")";
    if (!create.size || object.size != std::to_string(*create.size))
        return "another size (" + object.size + " bytes)";
    return object.enabled ? "" : "the same configuration, but was never enabled";
}

}  // namespace

std::optional<UserBackstoreCreate> UserBackstoreCreate::Parse(
    const std::vector<std::string>& arguments) {
    if (arguments.size() < 2 || !arguments[0].starts_with(kUserPath) || arguments[1] != "create")
        return std::nullopt;
    UserBackstoreCreate create;
    create.handler = arguments[0].substr(kUserPath.size());
    if (create.handler.ends_with('/'))
        create.handler.pop_back();
    for (size_t i = 2; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const size_t equals = argument.find('=');
        if (equals == std::string::npos)
            continue;
        const std::string key = argument.substr(0, equals);
        const std::string value = argument.substr(equals + 1);
        if (key == "name")
            create.name = value;
        else if (key == "cfgstring")
            create.config = value;
        else if (key == "size")
            create.size = ParseSize(value);
    }
    return create;
}

std::string ExplainFailedCreate(const UserBackstoreCreate& create, const fs::path& configfsRoot,
                                const std::string& reported) {
    std::optional<KernelObject> object;
    const bool directory = create.name == "." || create.name == "..";
    if (!create.name.empty() && !directory && create.name.find('/') == std::string::npos)
        object = FindObject(configfsRoot, create.name);
    if (!object) {
        return SoundsLikeSuccess(reported) ? "the user backstore was not made, and none is there"
                                           : reported;
    }
    const std::string difference = WhatDiffers(*object, create);
    if (difference.empty())
        return "a user backstore of this name, configuration and size already exists";
    const std::string line = "a user backstore of this name is there with " + difference +
                             ": delete it or choose another name";
    return SoundsLikeSuccess(line) ? "a user backstore of this name is there and differs" : line;
}
