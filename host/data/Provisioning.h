#pragma once

#include <array>

/// What a new backing file has of the space that its size says.
enum class Provisioning {
    Full,    ///< all of it: no later write meets a full file system
    Sparse,  ///< none: each write takes what it needs, and fails when nothing is left
};

inline constexpr std::array kProvisionings{Provisioning::Full, Provisioning::Sparse};

/// Its name, in the configuration file and for people.
constexpr const char* ProvisioningName(Provisioning provisioning) {
    switch (provisioning) {
        case Provisioning::Full:
            return "full";
        case Provisioning::Sparse:
            return "sparse";
    }
    return nullptr;
}
