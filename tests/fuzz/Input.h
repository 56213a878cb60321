#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

/// A fuzzer's bytes, taken from the front; zeros when they are used up.
struct Input {
    Input(const uint8_t* data, size_t size) : m_data(data), m_left(size) {}

    bool Empty() const { return m_left == 0; }
    uint8_t Byte() {
        if (m_left == 0)
            return 0;
        --m_left;
        return *m_data++;
    }
    uint32_t Number() { return uint32_t{Byte()} << 8U | Byte(); }
    std::vector<uint8_t> Bytes(size_t count) {
        std::vector<uint8_t> bytes(count);
        for (uint8_t& byte : bytes)
            byte = Byte();
        return bytes;
    }
    std::string Rest() {
        std::string text(reinterpret_cast<const char*>(m_data), m_left);
        m_left = 0;
        return text;
    }

  private:
    const uint8_t* m_data;
    size_t m_left;
};

/// A property that no input may break.
inline void Check(bool holds, const char* what) {
    if (holds)
        return;
    std::cerr << "broken: " << what << std::endl;
    abort();
}

/// The target.
void Try(Input input);

extern "C" __attribute__((weak)) int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Try(Input(data, size));
    return 0;
}
