#pragma once

#include <map>
#include <string>
#include <vector>

/// A place in the configuration file.
struct Place {
    std::string file;
    unsigned line = 0;  ///< from 1; 0: the file as a whole
};

/// Collects what is wrong, one line each, so that a user mends a file in one go.
/// Thread: one at a time.
class Problems {
  public:
    /// Adds "FILE:LINE: text". The text says what is wrong and what to do.
    void Add(const Place& place, const std::string& text) {
        const std::string line = place.line == 0 ? "" : ":" + std::to_string(place.line);
        m_lines.push_back(place.file + line + ": " + text);
    }

    bool Empty() const { return m_lines.empty(); }
    const std::vector<std::string>& Lines() const { return m_lines; }

  private:
    std::vector<std::string> m_lines;
};

/// Remembers what must occur once, and where it occurred first.
class Once {
  public:
    /// Returns: empty, or "line N" of the first occurrence.
    std::string Earlier(const std::string& key, const Place& place) {
        const auto [entry, fresh] = m_places.emplace(key, place.line);
        return fresh ? std::string() : "line " + std::to_string(entry->second);
    }

  private:
    std::map<std::string, unsigned> m_places;
};
