#pragma once

#include <fcntl.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "framework/UniqueFd.h"

/// Files of a few lines: /proc, sysfs, configfs, and those that our programs leave each other.
/// Header only, for programs that link nothing of the framework. Thread: any.

/// Returns: all that the file holds; nothing when it can't be opened or read, and errno says why.
inline std::optional<std::string> ReadSmallFile(const std::filesystem::path& path) {
    const UniqueFd file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file.Valid())
        return std::nullopt;
    std::string text;
    std::array<char, 4096> piece;  // NOLINT(cppcoreguidelines-pro-type-member-init)
    for (;;) {
        const ssize_t got = read(file.Get(), piece.data(), piece.size());
        if (got > 0)
            text.append(piece.data(), static_cast<size_t>(got));
        else if (got == 0)
            return text;
        else if (const int error = errno; error != EINTR) {
            errno = error;
            return std::nullopt;
        }
    }
}

/// Returns: the first line without its end; empty when there is none, for whatever reason.
inline std::string FirstLineOf(const std::filesystem::path& path) {
    std::string text = ReadSmallFile(path).value_or("");
    text.resize(std::min(text.find('\n'), text.size()));
    return text;
}

/// Writes `value` to an existing file, an attribute of sysfs or configfs, in one write.
/// Returns: 0 or an errno.
inline int WriteSmallFile(const std::filesystem::path& path, std::string_view value) {
    const UniqueFd file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.Valid())
        return errno;
    const ssize_t written = write(file.Get(), value.data(), value.size());
    if (written < 0)
        return errno;
    return static_cast<size_t>(written) == value.size() ? 0 : EIO;
}
