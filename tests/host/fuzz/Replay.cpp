// Runs a fuzz target on each file of a folder.
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int, char** argv) {
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::string input{std::istreambuf_iterator<char>(in), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(input.data()), input.size());
    }
}
