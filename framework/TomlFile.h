#pragma once

#include <optional>
#include <string>
#include <toml.hpp>

#include "framework/Export.h"

/// TOML that people write: read with care, since the parser recurses into what is nested, reads
/// past its buffer to complain of bytes that aren't UTF-8, and explains itself in a paragraph with
/// a picture. Functions without state; thread: any.

/// Why a text can't be used, in one line, and where.
struct TomlFault {
    unsigned line = 0;  ///< from 1; 0: the file as a whole
    std::string text;   ///< what is wrong, and what to do
};

/// Reads a regular file of at most 1 MiB; a FIFO or a device isn't waited for.
/// Returns: nothing, with `fault`, when it can't be read.
MO_EXPORT std::optional<std::string> ReadTomlText(const std::string& file, TomlFault& fault);

/// Parses a text of at most 1 MiB in UTF-8, whose brackets nest at most 64 deep. `file` is its name
/// in the values' locations.
/// Returns: nothing, with `fault`, when it is no such text.
MO_EXPORT std::optional<toml::value> ParseToml(const std::string& text, const std::string& file,
                                               TomlFault& fault);
