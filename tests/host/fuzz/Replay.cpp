// Runs a fuzz target on the files of a corpus, and on small changes of each that are the same in every run.
#include "Fuzz.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>

int main(int argc, char** argv) {
    constexpr int kChanges = 400;
    if (argc != 2) {
        std::fprintf(stderr, "Usage: %s FOLDER\n", argv[0]);
        return 2;
    }
    std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same on purpose
    int inputs = 0;
    for (const auto& file : std::filesystem::directory_iterator(argv[1])) {
        std::ifstream in(file.path(), std::ios::binary);
        const std::string original{std::istreambuf_iterator<char>(in), {}};
        fuzz(original);
        for (int i = 0; i < kChanges && !original.empty(); ++i, ++inputs) {
            std::string changed = original;
            const std::size_t at = random() % changed.size();
            switch (i % 4) {
            case 0:
                changed[at] = static_cast<char>(random());
                break;
            case 1:
                changed.resize(at);
                break;
            case 2:
                changed.erase(at, 1 + random() % 16);
                break;
            default:
                changed.insert(at, original, random() % original.size(), random() % 64);
            }
            fuzz(changed);
        }
    }
    std::printf("%d changed inputs\n", inputs);
    return inputs > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
