#pragma once

#include <unistd.h>

#include <filesystem>

/// A directory that goes with its object, in lower case, as a host wants its paths. Thread: one.
struct TempDirectory {
    TempDirectory() {
        static int made = 0;
        do {
            path = std::filesystem::temp_directory_path() /
                   ("moscsi_test." + std::to_string(getpid()) + "." + std::to_string(++made));
        } while (!create_directory(path));
    }
    ~TempDirectory() { std::filesystem::remove_all(path); }
    TempDirectory(const TempDirectory&) = delete;

    std::filesystem::path path;
};
