#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

/// A directory that goes with its object.
struct TempDirectory {
    TempDirectory() {
        std::string name = std::filesystem::temp_directory_path() / "moscsi_test.XXXXXX";
        if (mkdtemp(name.data()) == nullptr)
            throw std::runtime_error("mkdtemp");
        path = name;
    }
    ~TempDirectory() { std::filesystem::remove_all(path); }
    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    std::filesystem::path path;
};
