#include "framework/GetGUID.h"

#include <array>

#include "framework/MocHash.h"

bool GetGUID(const void* bytes, uint32_t length, std::string& out) {
    std::array<unsigned char, 16> digest{};
    MocMD5 hash;
    hash.addData(bytes, length);
    hash.finish(digest.data(), static_cast<uint32_t>(digest.size()));

    static constexpr char kDigits[] = "0123456789abcdef";
    out.clear();
    for (const unsigned char byte : digest) {
        out += kDigits[byte >> 4];
        out += kDigits[byte & 15];
    }
    return true;
}
