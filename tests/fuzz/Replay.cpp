// Runs a fuzz target over the files of its corpus, and over as many random inputs as it is told,
// always the same ones: the regression run, with any compiler.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>

#include "tests/fuzz/Input.h"

int main(int argc, char** argv) {
    const auto run = [](const std::string& name, const std::string& bytes) {
        std::cerr << name << std::endl;
        Try(Input(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
    };
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream file(entry.path(), std::ios::binary);
        run(entry.path().filename(), {std::istreambuf_iterator<char>(file), {}});
        ++count;
    }
    for (int seed = 0; argc > 2 && seed < std::stoi(argv[2]); ++seed, ++count) {
        std::mt19937 random(seed);
        std::string bytes(random() % 8192, '\0');
        std::generate(bytes.begin(), bytes.end(), [&] { return static_cast<char>(random()); });
        run("random " + std::to_string(seed), bytes);
    }
    std::cout << count << " inputs" << std::endl;
    return count > 0 ? 0 : 1;
}
