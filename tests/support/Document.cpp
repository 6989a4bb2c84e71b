#include "support/Document.h"

#include <openssl/evp.h>

#include <array>
#include <cstdint>
#include <random>
#include <stdexcept>

std::string makeDocument(std::size_t size) {
    std::mt19937_64 numbers(size);
    std::string document;
    document.reserve(size + sizeof(std::uint64_t));
    while (document.size() < size) {
        const std::uint64_t number = numbers();
        document.append(reinterpret_cast<const char*>(&number), sizeof number);
    }
    document.resize(size);
    return document;
}

std::string sha256(const std::string& bytes) {
    std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    if (EVP_Digest(bytes.data(), bytes.size(), digest.data(), &length, EVP_sha256(), nullptr) != 1) {
        throw std::runtime_error("no SHA-256");
    }
    std::string text;
    for (unsigned int i = 0; i < length; ++i) {
        constexpr char kDigits[] = "0123456789abcdef";
        text += kDigits[digest[i] >> 4];
        text += kDigits[digest[i] & 15];
    }
    return text;
}
