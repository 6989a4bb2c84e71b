// Runs a fuzz target on the files of a corpus, and on small changes of each that are the same in every run.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int, char** argv) {
    constexpr int kInputs = 400;
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same on purpose
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::string original{std::istreambuf_iterator<char>(in), {}};
        std::string input = original;
        for (int i = 0; i < kInputs; ++i) {
            LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
            const std::string middle(random() % 16, static_cast<char>(random()));
            input = original;
            input.replace(random() % input.size(), ((i % 8) != 0) ? random() % 16 : std::string::npos,
                          middle);
        }
    }
}
