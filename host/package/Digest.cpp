#include "host/package/Digest.h"

#include "host/package/Failure.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <new>

namespace package {

namespace {

void requireDone(int result) {
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
    return std::nullopt;
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

const EVP_MD* digestMethod(DigestKind kind) {
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

Digest::Digest(DigestKind kind) : context_(EVP_MD_CTX_new()) {
    requireDone(context_ ? EVP_DigestInit_ex(context_.get(), digestMethod(kind), nullptr) : 0);
}

void Digest::update(const void* bytes, std::size_t size) {
    requireDone(EVP_DigestUpdate(context_.get(), bytes, size));
}

std::string Digest::finish() {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    requireDone(EVP_DigestFinal_ex(context_.get(), bytes, &size));
    return {reinterpret_cast<const char*>(bytes), size};
}

std::string toHex(std::string_view bytes) {
    std::string text(2 * bytes.size() + 1, '\0');
    if (OPENSSL_buf2hexstr_ex(text.data(), text.size(), nullptr,
                              reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size(),
                              '\0') != 1) {
        throw std::bad_alloc();
    }
    text.pop_back();
    std::transform(text.begin(), text.end(), text.begin(),
                   [](char c) { return c >= 'A' ? static_cast<char>(c - 'A' + 'a') : c; });
    return text;
}

std::optional<std::string> fromHex(std::string_view text) {
    if (text.size() % 2 != 0) {
        return std::nullopt;
    }
    std::string bytes;
    for (std::size_t i = 0; i < text.size(); i += 2) {
        const int high = OPENSSL_hexchar2int(static_cast<unsigned char>(text[i]));
        const int low = OPENSSL_hexchar2int(static_cast<unsigned char>(text[i + 1]));
        if (high < 0 || low < 0) {
            return std::nullopt;
        }
        bytes += static_cast<char>(high * 16 + low);
    }
    return bytes;
}

} // namespace package
