#pragma once

#include "package/Digest.h"

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct x509_st;
struct x509_store_st;

namespace package {

class Package;

// Certificates that the machine's administrator trusts to name publishers: an authority's, or a publisher's
// own.
class TrustedCertificates {
  public:
    // Every file of the folder in PEM form, but for hidden ones and what dpkg set aside. No folder is an
    // empty one. Throws Failure when anybody but the administrator (or whoever runs this program) could
    // change the folder or a file in it, or when a file cannot be read: ignoring it could leave the folder
    // empty, and an empty one demands nothing.
    explicit TrustedCertificates(const std::filesystem::path& folder);

    // None at all.
    TrustedCertificates();

    // Adds one certificate. Throws Failure when there is no memory.
    void add(x509_st* certificate);

    bool isEmpty() const { return count_ == 0; }
    x509_store_st* store() const { return store_.get(); }

  private:
    struct Free {
        void operator()(x509_store_st* store) const;
    };
    std::unique_ptr<x509_store_st, Free> store_;
    std::size_t count_ = 0;
};

// A signature together with what it is over.
struct Signed {
    DigestKind kind = DigestKind::Sha256;
    std::string digest;
    std::string signature;
    std::vector<std::string> certificates; // DER, the signer's first
};

// Verifies the signature and, unless no certificate is trusted, that a chain leads from the signer to a
// trusted one: all within their time, with keys and digests that are strong enough, and meant for signing
// code. Returns the SHA-256 fingerprint of the signer's certificate in hexadecimal digits. Throws Failure,
// which names the cause.
std::string verifySignature(const Signed& what, const TrustedCertificates& trusted);

// The same for a package. Empty when it has no signature, which is a Failure where any certificate is
// trusted.
std::optional<std::string> verifySigner(const Package& package, const TrustedCertificates& trusted);

} // namespace package
