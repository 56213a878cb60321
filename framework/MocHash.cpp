#include "framework/MocHash.h"

#include <openssl/evp.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <stdexcept>

struct MocMD5::State {
    std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context{EVP_MD_CTX_new(),
                                                                    &EVP_MD_CTX_free};
};

MocMD5::MocMD5() : m_state(std::make_unique<State>()) {
    MocMD5::reset();
}

MocMD5::~MocMD5() = default;

void MocMD5::reset() {
    // Only a machine whose policy forbids MD5 comes here; names can't be made then.
    if (EVP_DigestInit_ex(m_state->context.get(), EVP_md5(), nullptr) != 1)
        throw std::runtime_error("MD5 is not available in this OpenSSL configuration");
}

void MocMD5::addData(const void* data, uint32_t length) {
    EVP_DigestUpdate(m_state->context.get(), data, length);
}

uint32_t MocMD5::finish(void* out, uint32_t size) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_DigestFinal_ex(m_state->context.get(), digest.data(), &length);
    const uint32_t written = std::min<uint32_t>(length, size);
    std::memcpy(out, digest.data(), written);
    return written;
}

void Moc::crc32(const void* data, int length, unsigned int* crc) {
    *crc = static_cast<unsigned int>(
        ::crc32(*crc, static_cast<const Bytef*>(data), static_cast<uInt>(length)));
}
