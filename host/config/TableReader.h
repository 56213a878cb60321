#pragma once

#include <array>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <toml.hpp>
#include <vector>

#include "host/config/Config.h"

/// Reads one TOML table key by key: a value of the wrong type, a required key that is missing and a
/// key that nobody asked for each become one line with the place.
/// Thread: one at a time. The table must outlive the reader.
class TableReader {
  public:
    TableReader(const toml::value& table, std::string file, std::string what, Problems& problems);

    KeyPlaces Places() const { return m_places; }

    bool Has(const std::string& key) { return Find(key) != nullptr; }

    // Each gives nothing when the key is missing, and when its value has been refused.

    std::optional<std::string> String(const std::string& key);
    std::string RequiredString(const std::string& key);  ///< not empty

    /// One of `rows`, by the name that `nameOf`, a function or a member, has for each.
    /// Returns: the row; null when the key is missing or names none.
    template <typename Row, size_t kCount, typename NameOf>
    const Row* Choice(const std::string& key, const std::array<Row, kCount>& rows, NameOf nameOf) {
        const std::optional<std::string> text = String(key);
        if (!text)
            return nullptr;
        std::vector<std::string> names;
        for (const Row& row : rows) {
            names.emplace_back(std::invoke(nameOf, row));
            if (names.back() == *text)
                return &row;
        }
        RefuseChoice(key, *text, names);
        return nullptr;
    }

    template <typename Row, size_t kCount, typename NameOf>
    const Row* RequiredChoice(const std::string& key, const std::array<Row, kCount>& rows,
                              NameOf nameOf) {
        Require(key);
        return Choice(key, rows, nameOf);
    }

    bool IsString(const std::string& key, const std::string& text);
    std::vector<std::string> RequiredStrings(const std::string& key, const std::string& meaning);
    std::optional<int64_t> Integer(const std::string& key);

    /// From `least`, which isn't negative, to `most`, both included.
    std::optional<uint64_t> WholeNumber(const std::string& key, int64_t least, int64_t most);

    std::optional<bool> Boolean(const std::string& key);

    /// A probability above 0 and up to 1.
    std::optional<double> Rate(const std::string& key);

    /// An integer number of bytes, or a text with a unit.
    std::optional<uint64_t> Size(const std::string& key);

    /// An integer; a missing key and "auto" both give nothing.
    std::optional<int64_t> NumberOrAuto(const std::string& key);

    const toml::value* Table(const std::string& key);

    /// The tables of an array of tables; none when the key is missing.
    std::vector<toml::value> Tables(const std::string& key);

    void Complain(const std::string& key, const std::string& text);

    /// To be called last: what was not asked for is a misspelt key.
    void RefuseUnknownKeys();

  private:
    const toml::value* Find(const std::string& key);

    /// The value as `conversion` gives it; what that gives nothing for is refused: "must be
    /// WANTED".
    template <typename Value, typename Conversion>
    std::optional<Value> Convert(const std::string& key, const std::string& wanted,
                                 Conversion conversion);

    void Require(const std::string& key);
    void RefuseChoice(const std::string& key, const std::string& text,
                      const std::vector<std::string>& names);

    const toml::value& m_table;
    std::string m_what;
    Problems& m_problems;
    KeyPlaces m_places;
    std::set<std::string> m_asked;
};
