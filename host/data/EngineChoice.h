#pragma once

#include <array>

/// What moves a file's data. Auto takes io_uring, or threads where the kernel refuses a ring (many
/// containers do); both are equally durable.
enum class FileEngineChoice { Auto, Uring, Threads };

inline constexpr std::array kFileEngineChoices{FileEngineChoice::Auto, FileEngineChoice::Uring,
                                               FileEngineChoice::Threads};

/// Its name in the configuration file.
constexpr const char* FileEngineName(FileEngineChoice choice) {
    switch (choice) {
        case FileEngineChoice::Auto:
            return "auto";
        case FileEngineChoice::Uring:
            return "io_uring";
        case FileEngineChoice::Threads:
            return "threads";
    }
    return nullptr;
}
