#include "framework/MOPlatformInfo.h"

#include <unistd.h>

#include <array>
#include <toml.hpp>

#include "framework/CLogWriterInterface.h"
#include "framework/MOPI_Base.h"
#include "framework/Mutex.h"

namespace {

constexpr char kFactsFile[] = "/etc/moscsi/platform.toml";

PlatformFacts DefaultFacts() {
    std::array<char, 256> name{};
    if (gethostname(name.data(), name.size() - 1) != 0)
        name[0] = '\0';

    PlatformFacts facts;
    facts.homeDirectory = MOSCSI_INSTALLED_HOME;
    facts.physicalMachine = name.data();
    facts.strings["Base"]["dBASEHOME"] = MOSCSI_INSTALLED_HOME;
    return facts;
}

/// Takes a key that may be missing but, unlike toml::find_or, not of another type.
template <typename T>
void Take(const toml::value& table, const char* key, T& target) {
    if (table.contains(key))
        target = toml::find<T>(table, key);
}

/// What the file holds, over the defaults. Throws what toml11 throws.
PlatformFacts ParseFacts(const std::string& file) {
    const toml::value root = toml::parse(file);
    PlatformFacts facts = DefaultFacts();
    Take(root, "home", facts.homeDirectory);
    Take(root, "machine", facts.physicalMachine);
    if (root.contains("strings"))
        for (const auto& [section, keys] : toml::find<toml::table>(root, "strings"))
            for (const auto& [key, value] : keys.as_table())
                facts.strings[section][key] = value.as_string().str;
    if (root.contains("clients")) {
        for (const auto& [machine, entry] : toml::find<toml::table>(root, "clients")) {
            PlatformFacts::Client client;
            client.id = static_cast<uint64_t>(toml::find<int64_t>(entry, "id"));
            Take(entry, "iscsi_port", client.iscsiPort);
            facts.clients[machine] = client;
        }
    }
    return facts;
}

struct Store {
    Mutex mutex;
    std::shared_ptr<const PlatformFacts> facts MO_GUARDED_BY(mutex);
};

/// Never destroyed: the runner's thread may ask until the process ends.
Store& TheStore() {
    static auto* store = new Store;
    return *store;
}

}  // namespace

std::shared_ptr<const PlatformFacts> CurrentFacts() {
    Store& store = TheStore();
    const MutexGuard guard(store.mutex);
    if (store.facts == nullptr) {
        PlatformFacts facts = DefaultFacts();
        if (access(kFactsFile, F_OK) == 0) {
            const std::string fault = MOPlatformInfo::readFacts(kFactsFile, facts);
            if (!fault.empty())
                g_ptrLogWriter->WriteMessage(-1, __PRETTY_FUNCTION__, __LINE__, 0, 0, "%s",
                                             fault.c_str());
        }
        store.facts = std::make_shared<const PlatformFacts>(std::move(facts));
    }
    return store.facts;
}

int MOPlatformInfo::getString(const char* section, const char* key, std::string* value) {
    const auto facts = CurrentFacts();
    const auto keys = facts->strings.find(section);
    if (keys == facts->strings.end())
        return 0;
    const auto found = keys->second.find(key);
    if (found == keys->second.end())
        return 0;
    *value = found->second;
    return 1;
}

const char* MOPlatformInfo::getPhysicalMachine() {
    return CurrentFacts()->physicalMachine.c_str();  // the store keeps the snapshot alive
}

void MOPlatformInfo::setFacts(const PlatformFacts& facts) {
    Store& store = TheStore();
    const MutexGuard guard(store.mutex);
    store.facts = std::make_shared<const PlatformFacts>(facts);
}

std::string MOPlatformInfo::readFacts(const std::string& file, PlatformFacts& facts) {
    try {
        facts = ParseFacts(file);
        return {};
    } catch (const std::exception& fault) {
        // toml11 explains itself in a paragraph with a picture of the line; one line serves a log.
        std::string text = fault.what();
        for (char& c : text)
            if (c == '\n')
                c = ' ';
        return "platform file " + file + " can't be used, the defaults are: " + text;
    }
}

MOPI_Base::MOPI_Base() : m_home(CurrentFacts()->homeDirectory) {}
