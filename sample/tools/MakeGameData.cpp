// Writes bytes like those of packed game data: the same on every machine, and incompressible.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>

int main(int argc, char** argv) {
    if (argc != 3) {
        std::fprintf(stderr, "Usage: make-game-data BYTES FILE\n");
        return 2;
    }
    std::mt19937_64 random(20190405); // the same on purpose
    std::ofstream out(argv[2], std::ios::binary | std::ios::trunc);
    for (auto left = std::strtoll(argv[1], nullptr, 10); left > 0; left -= 8) {
        std::uint64_t word = random();
        char bytes[8];
        for (char& byte : bytes) {
            byte = static_cast<char>(word & 0xff);
            word >>= 8;
        }
        out.write(bytes, left < 8 ? left : 8);
    }
    out.close();
    if (!out) {
        std::fprintf(stderr, "make-game-data: cannot write %s\n", argv[2]);
        return 1;
    }
    return 0;
}
