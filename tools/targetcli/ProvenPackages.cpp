#include "tools/targetcli/ProvenPackages.h"

#include <algorithm>
#include <cstring>
#include <vector>

#include "framework/SmallFile.h"

namespace {

namespace fs = std::filesystem;

struct ProvenRow {
    uint64_t hash;
    const char* version;
};
constexpr ProvenRow kProven[] = {
    {0x6df7f504b6fc0cce,
     "2.1.53"},  // Debian 12: targetcli-fb 1:2.1.53-1.1, python3-rtslib-fb 2.1.75-2.1
};

constexpr const char* kPackages[] = {"configshell_fb", "rtslib_fb", "targetcli"};

// It tells releases apart, it keeps nobody out.
void Mix(uint64_t& hash, const std::string& text) {
    hash = (hash ^ text.size()) * 0x9e3779b97f4a7c15U;
    for (size_t at = 0; at < text.size(); at += sizeof hash) {
        uint64_t word = 0;
        memcpy(&word, &text[at], std::min(sizeof word, text.size() - at));
        hash = (hash ^ word) * 0x9e3779b97f4a7c15U;
        hash ^= hash >> 29;
    }
}

// Modules by rising name; what Python compiled from them stays out.
std::vector<fs::path> ModulesIn(const fs::path& package) {
    std::vector<fs::path> modules;
    std::error_code failure;
    for (const fs::directory_entry& entry : fs::directory_iterator(package, failure))
        if (entry.path().filename() != "__pycache__")
            modules.push_back(entry.path());
    std::sort(modules.begin(), modules.end());
    return modules;
}

}  // namespace

std::optional<uint64_t> HashOfPackages(const fs::path& real, const fs::path& modules) {
    std::vector<fs::path> files = {real};
    for (const char* package : kPackages)
        for (const fs::path& module : ModulesIn(modules / package))
            files.push_back(module);
    uint64_t hash = 0;
    for (const fs::path& file : files) {
        const auto text = ReadSmallFile(file);
        if (!text)
            return std::nullopt;
        Mix(hash, file.filename());
        Mix(hash, *text);
    }
    return hash;
}

std::optional<ProvenPackages> FindProvenPackages(uint64_t hash) {
    for (const ProvenRow& row : kProven)
        if (row.hash == hash)
            return ProvenPackages{row.version};
    return std::nullopt;
}
