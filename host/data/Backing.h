#pragma once

#include <array>

/// Where a user LUN's data lives. Whoever treats one differently from another switches over all of
/// them and has no default, so that a new one compiles only when each place has decided. The return
/// behind such a switch is never reached.
enum class Backing {
    Memory,  ///< zeros at first, gone with the process
    File,    ///< a regular file of exactly the LUN's size
};

inline constexpr std::array kBackings{Backing::Memory, Backing::File};

/// Its name, in the configuration file and for people.
constexpr const char* BackingName(Backing backing) {
    switch (backing) {
        case Backing::Memory:
            return "memory";
        case Backing::File:
            return "file";
    }
    return nullptr;
}

static_assert(BackingName(static_cast<Backing>(kBackings.size())) == nullptr,
              "kBackings has every backing");
