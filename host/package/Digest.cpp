#include "package/Digest.h"

#include "package/Failure.h"

#include <openssl/evp.h>

#include <charconv>

namespace package {

namespace {

void expect(int result) {
    if (result != 1) {
        throw Failure("a checksum cannot be computed on this machine");
    }
}

} // namespace

std::optional<DigestKind> digestKind(std::string_view name) {
    for (const DigestKind kind :
         {DigestKind::Md5, DigestKind::Sha1, DigestKind::Sha256, DigestKind::Sha512}) {
        if (name == digestName(kind)) {
            return kind;
        }
    }
    return {};
}

const char* digestName(DigestKind kind) {
    switch (kind) {
    case DigestKind::Md5:
        return "md5";
    case DigestKind::Sha1:
        return "sha1";
    case DigestKind::Sha256:
        return "sha256";
    case DigestKind::Sha512:
        return "sha512";
    }
    return "";
}

bool isStrong(DigestKind kind) {
    return kind == DigestKind::Sha256 || kind == DigestKind::Sha512;
}

const evp_md_st* digestMethod(DigestKind kind) {
    switch (kind) {
    case DigestKind::Md5:
        return EVP_md5();
    case DigestKind::Sha1:
        return EVP_sha1();
    case DigestKind::Sha256:
        return EVP_sha256();
    case DigestKind::Sha512:
        return EVP_sha512();
    }
    return nullptr;
}

void Digest::Free::operator()(evp_md_ctx_st* context) const {
    EVP_MD_CTX_free(context);
}

Digest::Digest(DigestKind kind) : context_(EVP_MD_CTX_new()) {
    expect(context_ ? EVP_DigestInit_ex(context_.get(), digestMethod(kind), nullptr) : 0);
}

void Digest::update(const void* bytes, std::size_t size) {
    expect(EVP_DigestUpdate(context_.get(), bytes, size));
}

std::string Digest::finish() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    expect(EVP_DigestFinal_ex(context_.get(), bytes, &size));
    return {reinterpret_cast<const char*>(bytes), size};
}

std::string toHex(std::string_view bytes) {
    constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    text.reserve(2 * bytes.size());
    for (const char c : bytes) {
        const auto byte = static_cast<unsigned char>(c);
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
}

std::optional<std::string> fromHex(std::string_view text) {
    if (text.size() % 2 != 0) {
        return {};
    }
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const char* pair = text.data() + i;
        unsigned char byte = 0;
        const auto [end, problem] = std::from_chars(pair, pair + 2, byte, 16);
        if (problem != std::errc() || end != pair + 2) {
            return {};
        }
        bytes += static_cast<char>(byte);
    }
    return bytes;
}

} // namespace package
