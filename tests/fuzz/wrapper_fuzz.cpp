// What the wrapper makes of others' words: targetcli's version, its arguments, the kernel's text
// about an object of that name.

#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "tests/fuzz/Input.h"
#include "tools/targetcli/UserBackstoreCheck.h"
#include "tools/targetcli/Version.h"

namespace fs = std::filesystem;

void Try(Input input) {
    static const fs::path root = fs::temp_directory_path() / ("fuzz." + std::to_string(getpid()));
    static const fs::path object = root / "core/user_1/lun";
    static const bool made = fs::create_directories(object);
    Check(made || fs::exists(object), "a place for the object");

    const bool enabled = input.Byte() % 2 == 0;
    const std::string text = input.Rest();
    const std::string version = VersionIn(text);
    const std::string older = OlderVersionForm(version);
    Check(older.find_first_of(" \n") == std::string::npos, "a version is one word");
    Check(older.empty() || older >= "0", "a version begins with a digit");

    std::vector<std::string> arguments;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);)
        arguments.push_back(line);
    const auto create = UserBackstoreCreate::Parse(arguments);
    if (!create)
        return;
    std::ofstream(object / "info")
        << "Status: ACTIVATED SectorSize: 512\n  Config: " << create->handler << '/' << text
        << "\n";
    std::ofstream(object / "enable") << (enabled ? "1\n" : "0\n");
    const std::string told = ExplainFailedCreate(*create, root, text);
    const bool success =
        told.find("exists") != std::string::npos || told.find("Exists") != std::string::npos;
    Check(!success || create->name.empty() || (enabled && create->size.has_value()),
          "only a configured object of the same size exists");
}
