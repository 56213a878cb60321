#include "framework/MOPlatformInfo.h"

#include <unistd.h>

#include <array>

#include "framework/CLogWriterInterface.h"
#include "framework/MOPI_Base.h"
#include "framework/Mutex.h"
#include "framework/TomlFile.h"

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

/// Reads the file's values; the first that can't be is the fault.
class FactsReader {
  public:
    /// The text below `key` in `table`, over what `text` holds.
    void Text(const toml::value& table, const std::string& key, std::string& text) {
        if (const toml::value* value = Find(table, key); value != nullptr && value->is_string())
            text = value->as_string().str;
        else if (value != nullptr)
            Refuse(*value, key + " must be a text in quotes");
    }

    /// A directory whose name a shell takes as it stands.
    void Directory(const toml::value& table, const std::string& key, std::string& path) {
        Text(table, key, path);
        const toml::value* value = Find(table, key);
        if (value == nullptr || !m_fault.text.empty())
            return;
        constexpr char kFit[] =
            "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._:@+-";
        if (!path.starts_with('/') || (path.ends_with('/') && path != "/") ||
            path.find_first_not_of(kFit) != std::string::npos)
            Refuse(*value, key +
                               " must be an absolute path of letters, digits and . _ : @ + - /, "
                               "without / at its end");
    }

    int64_t Number(const toml::value& table, const std::string& key, int64_t least, int64_t most,
                   int64_t otherwise) {
        const toml::value* value = Find(table, key);
        if (value == nullptr)
            return otherwise;
        if (value->is_integer() && value->as_integer() >= least && value->as_integer() <= most)
            return value->as_integer();
        Refuse(*value, key + " must be a whole number from " + std::to_string(least) + " to " +
                           std::to_string(most));
        return otherwise;
    }

    /// The tables or values below `key`; none when it isn't there.
    toml::table Entries(const toml::value& table, const std::string& key) {
        const toml::value* value = Find(table, key);
        if (value == nullptr)
            return {};
        if (value->is_table())
            return value->as_table();
        Refuse(*value, key + " must be a table");
        return {};
    }

    void Refuse(const toml::value& value, const std::string& text) {
        if (m_fault.text.empty())
            m_fault = {static_cast<unsigned>(value.location().line()), text};
    }

    const TomlFault& Fault() const { return m_fault; }

  private:
    const toml::value* Find(const toml::value& table, const std::string& key) {
        if (!table.is_table()) {
            Refuse(table, "this must be a table");
            return nullptr;
        }
        const auto found = table.as_table().find(key);
        return found == table.as_table().end() ? nullptr : &found->second;
    }

    TomlFault m_fault;
};

/// What the file holds, over the defaults.
PlatformFacts FactsOf(const toml::value& root, TomlFault& fault) {
    PlatformFacts facts = DefaultFacts();
    FactsReader reader;
    reader.Directory(root, "home", facts.homeDirectory);
    reader.Text(root, "machine", facts.physicalMachine);
    for (const auto& [section, keys] : reader.Entries(root, "strings"))
        for (const auto& [key, value] : reader.Entries(root.at("strings"), section))
            reader.Text(keys, key, facts.strings[section][key]);
    for (const auto& [machine, entry] : reader.Entries(root, "clients")) {
        PlatformFacts::Client client;
        if (!entry.is_table() || !entry.contains("id"))
            reader.Refuse(entry, "clients." + machine + " must be a table with an id");
        client.id = static_cast<uint64_t>(reader.Number(entry, "id", 0, INT64_MAX, 0));
        client.iscsiPort = static_cast<int>(reader.Number(entry, "iscsi_port", 1, 65535, -1));
        facts.clients[machine] = client;
    }
    fault = reader.Fault();
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
                g_ptrLogWriter->WriteMessage(-1, __PRETTY_FUNCTION__, __LINE__, 0, 0,
                                             "%s (the defaults are used)", fault.c_str());
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
    TomlFault fault;
    if (const std::optional<std::string> text = ReadTomlText(file, fault))
        if (const std::optional<toml::value> root = ParseToml(*text, file, fault))
            if (PlatformFacts read = FactsOf(*root, fault); fault.text.empty()) {
                facts = std::move(read);
                return {};
            }
    const std::string line = fault.line == 0 ? "" : ":" + std::to_string(fault.line);
    return "platform file " + file + line + ": " + fault.text;
}

MOPI_Base::MOPI_Base() : m_home(CurrentFacts()->homeDirectory) {}
