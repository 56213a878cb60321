#include "host/plan/Identity.h"

#include <fmt/format.h>

#include <array>
#include <cctype>

#include "framework/GetGUID.h"
#include "util/Platform_Util.h"

namespace {

constexpr size_t kObjectNameLength = 15;
constexpr size_t kNaaDigits = 25;

std::string GuidOf(const std::string& text) {
    std::string guid;
    GetGUID(text.data(), static_cast<uint32_t>(text.size()), guid);
    return guid;
}

}  // namespace

std::string SerialOf(const std::string& prefix, const std::string& target,
                     const std::string& path) {
    std::string serial;
    Platform_Util::GetSerialNumber(prefix, target + path, serial);
    return serial;
}

std::string ObjectNameOf(const std::string& target, const std::string& path) {
    return GuidOf("MoScsiSrv-" + target + "-" + path).substr(0, kObjectNameLength);
}

std::string CfgStringOf(const std::string& target, const std::string& path) {
    return GuidOf(target + path);
}

std::string NaaDigitsOf(const std::string& serial) {
    std::string digits;
    for (const char c : serial)
        if (isxdigit(static_cast<unsigned char>(c)) != 0 && digits.size() < kNaaDigits)
            digits += static_cast<char>(tolower(static_cast<unsigned char>(c)));
    digits.resize(kNaaDigits, '0');
    return digits;
}

std::string SizeText(uint64_t bytes) {
    constexpr std::array<const char*, 5> kUnits{"bytes", "KiB", "MiB", "GiB", "TiB"};
    size_t unit = 0;
    while (bytes != 0 && bytes % 1024 == 0 && unit + 1 < kUnits.size()) {
        bytes /= 1024;
        ++unit;
    }
    return fmt::format("{} {}", bytes, kUnits[unit]);
}
