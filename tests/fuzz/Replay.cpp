// Runs a fuzz target over the files of its corpus: the regression run, with any compiler.

#include <filesystem>
#include <fstream>
#include <iterator>

#include "tests/fuzz/Input.h"

int main(int /*argc*/, char** argv) {
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(file), {});
        std::cerr << entry.path().filename().string() << std::endl;
        LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size());
        ++count;
    }
    std::cout << count << " inputs" << std::endl;
    return count > 0 ? 0 : 1;
}
