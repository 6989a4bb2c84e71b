#pragma once

#include "base/Owner.h"

#include <openssl/evp.h>

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace package {

/// The message digests that an archive may use. The first two only detect corruption, not tampering.
enum class DigestKind { Md5, Sha1, Sha256, Sha512 };

/// By its name in an archive's table; empty for an unknown one.
std::optional<DigestKind> digestKind(std::string_view name);
const char* digestName(DigestKind kind);
bool isStrong(DigestKind kind);
const EVP_MD* digestMethod(DigestKind kind);

/// A running digest. Throws Failure when the machine's OpenSSL refuses the kind.
class Digest {
  public:
    explicit Digest(DigestKind kind);

    void update(const void* bytes, std::size_t size);
    std::string finish(); ///< the digest's bytes; to be called once, last

  private:
    Owner<EVP_MD_CTX, EVP_MD_CTX_free> context_;
};

std::string toHex(std::string_view bytes);

/// Empty when the text is not pairs of hexadecimal digits.
std::optional<std::string> fromHex(std::string_view text);

} // namespace package
