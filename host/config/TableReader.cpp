#include "host/config/TableReader.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

TableReader::TableReader(const toml::value& table, std::string file, std::string what,
                         Problems& problems)
    : m_table(table), m_what(std::move(what)), m_problems(problems) {
    m_places.table = {std::move(file), static_cast<unsigned>(table.location().line())};
    if (!table.is_table()) {
        m_problems.Add(m_places.table, m_what + " must be a table");
        return;
    }
    for (const auto& [key, value] : table.as_table())
        m_places.lines[key] = static_cast<unsigned>(value.location().line());
}

const toml::value* TableReader::Find(const std::string& key) {
    m_asked.insert(key);
    if (!m_table.is_table())
        return nullptr;
    const auto found = m_table.as_table().find(key);
    return found == m_table.as_table().end() ? nullptr : &found->second;
}

void TableReader::Complain(const std::string& key, const std::string& text) {
    m_problems.Add(m_places.At(key), text);
}

template <typename Value, typename Conversion>
std::optional<Value> TableReader::Convert(const std::string& key, const std::string& wanted,
                                          Conversion conversion) {
    const toml::value* found = Find(key);
    if (found == nullptr)
        return std::nullopt;
    std::optional<Value> value = conversion(*found);
    if (!value)
        Complain(key, fmt::format("{} must be {}", key, wanted));
    return value;
}

std::optional<std::string> TableReader::String(const std::string& key) {
    return Convert<std::string>(key, "a text in quotes", [](const toml::value& value) {
        return value.is_string() ? std::optional(value.as_string().str) : std::nullopt;
    });
}

void TableReader::Require(const std::string& key) {
    if (Find(key) == nullptr)
        Complain(key, fmt::format("{} has no {}: add {} = \"...\"", m_what, key, key));
}

void TableReader::RefuseChoice(const std::string& key, const std::string& text,
                               const std::vector<std::string>& names) {
    const bool two = names.size() == 2;
    Complain(key, fmt::format("{} = \"{}\" is {} \"{}\"", key, text, two ? "neither" : "none of",
                              fmt::join(names, two ? "\" nor \"" : "\", \"")));
}

std::string TableReader::RequiredString(const std::string& key) {
    Require(key);
    const std::optional<std::string> text = String(key);
    if (text && text->empty())
        Complain(key, fmt::format("{} is empty: give it a text", key));
    return text.value_or("");
}

bool TableReader::IsString(const std::string& key, const std::string& text) {
    const toml::value* value = Find(key);
    return value != nullptr && value->is_string() && value->as_string().str == text;
}

std::vector<std::string> TableReader::RequiredStrings(const std::string& key,
                                                      const std::string& meaning) {
    std::vector<std::string> strings;
    const toml::value* value = Find(key);
    bool good = value != nullptr && value->is_array();
    if (good) {
        for (const toml::value& item : value->as_array()) {
            good = good && item.is_string();
            if (good)
                strings.push_back(item.as_string().str);
        }
    }
    if (!good)
        Complain(key, fmt::format("{} must hold {} = [...], an array of {}", m_what, key, meaning));
    return strings;
}

std::optional<int64_t> TableReader::Integer(const std::string& key) {
    return Convert<int64_t>(key, "a whole number", [](const toml::value& value) {
        return value.is_integer() ? std::optional(value.as_integer()) : std::nullopt;
    });
}

std::optional<uint64_t> TableReader::WholeNumber(const std::string& key, int64_t least,
                                                 int64_t most) {
    const std::string wanted = fmt::format("a whole number from {} to {}", least, most);
    return Convert<uint64_t>(key, wanted, [&](const toml::value& value) {
        return value.is_integer() && value.as_integer() >= least && value.as_integer() <= most
                   ? std::optional<uint64_t>(value.as_integer())
                   : std::nullopt;
    });
}

std::optional<bool> TableReader::Boolean(const std::string& key) {
    return Convert<bool>(key, "true or false", [](const toml::value& value) {
        return value.is_boolean() ? std::optional(value.as_boolean()) : std::nullopt;
    });
}

std::optional<double> TableReader::Rate(const std::string& key) {
    const auto convert = [](const toml::value& value) -> std::optional<double> {
        double rate = 0;
        if (value.is_floating())
            rate = value.as_floating();
        else if (value.is_integer())
            rate = static_cast<double>(value.as_integer());
        return rate > 0 && rate <= 1 ? std::optional(rate) : std::nullopt;
    };
    return Convert<double>(key, "a probability above 0 and up to 1", convert);
}

std::optional<uint64_t> TableReader::Size(const std::string& key) {
    const auto convert = [](const toml::value& value) -> std::optional<uint64_t> {
        if (value.is_string())
            return ParseSize(value.as_string().str);
        return value.is_integer() && value.as_integer() >= 0
                   ? std::optional<uint64_t>(value.as_integer())
                   : std::nullopt;
    };
    return Convert<uint64_t>(
        key, "a number of bytes, or a text such as \"64MiB\" (B, KiB, MiB, GiB, TiB)", convert);
}

std::optional<int64_t> TableReader::NumberOrAuto(const std::string& key) {
    if (IsString(key, "auto"))
        return std::nullopt;
    const toml::value* value = Find(key);
    if (value != nullptr && !value->is_integer()) {
        Complain(key, fmt::format("{} must be a whole number from 0 to 255, or \"auto\"", key));
        return std::nullopt;
    }
    return Integer(key);
}

const toml::value* TableReader::Table(const std::string& key) {
    const toml::value* value = Find(key);
    if (value != nullptr && !value->is_table()) {
        Complain(key, fmt::format("{} must be a table: [{}]", key, key));
        return nullptr;
    }
    return value;
}

std::vector<toml::value> TableReader::Tables(const std::string& key) {
    const toml::value* value = Find(key);
    if (value == nullptr)
        return {};
    if (!value->is_array()) {
        Complain(key, fmt::format("{} must be an array of tables, in double brackets", key));
        return {};
    }
    return value->as_array();
}

void TableReader::RefuseUnknownKeys() {
    if (!m_table.is_table())
        return;
    for (const auto& [key, line] : m_places.lines)
        if (!m_asked.contains(key))
            Complain(key, fmt::format("{} knows no key \"{}\"; it knows: {}", m_what, key,
                                      fmt::join(m_asked, ", ")));
}
