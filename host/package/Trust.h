#pragma once

#include "package/Digest.h"

#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <string_view>
#include <vector>

struct x509_st;
struct x509_store_st;

namespace package {

/// The certificates that a signature must lead to, and whether one is demanded.
///
/// A signer is accepted when its own certificate is trusted, or when its certificate leads to a trusted one
/// (an authority's) and its public key is pinned. An authority certifies others, too; so its certificate
/// alone accepts nobody.
///
/// A folder of trusted certificates holds files in PEM form, with one or more certificates each, and files
/// named *.keys: a pin on each line, the SHA-256 digest of a public key (its SubjectPublicKeyInfo in DER
/// form) in 64 hexadecimal digits. Hidden files and those that dpkg set aside (*.dpkg-*) are not read; but
/// where a folder is not empty, whatever it holds, a signature is demanded.
class TrustedCertificates {
  public:
    /// Nothing is trusted.
    TrustedCertificates();

    /// Demands a signature in any case.
    void demandSignature() { isDemanding_ = true; }

    /// Reads the folder; adds nothing where it does not exist. Throws Failure when others than root (or the
    /// user who runs this program) can change the folder or a file in it, or when anything in it cannot be
    /// read.
    void addFolder(const std::filesystem::path& folder);

    /// Adds one certificate. Throws std::bad_alloc.
    void add(x509_st* certificate);

    /// Adds a pin: 64 hexadecimal digits in lower case.
    void pin(const std::string& key) { pins_.insert(key); }

    bool demandsSignature() const { return isDemanding_; }

    /// Throws Failure unless the signer is acceptable, given the chain that leads from it to a trusted
    /// certificate.
    void requireAccepted(x509_st* signer) const;

    x509_store_st* store() const { return store_.get(); }

  private:
    struct Free {
        void operator()(x509_store_st* store) const;
    };

    void addFile(const std::string& content, bool arePins);

    std::unique_ptr<x509_store_st, Free> store_;
    std::set<std::string> certificates_; // fingerprints
    std::set<std::string> pins_;
    bool isDemanding_ = false;
};

/// The publisher's, which come with this program, and the administrator's.
inline constexpr const char* kTrustedFolders[] = {"/usr/lib/pellomar-installer/trusted",
                                                  "/etc/pellomar-installer/trusted"};

/// The SHA-256 digest of the certificate's public key, as it is pinned.
std::string publicKeyDigest(x509_st* certificate);

/// A signature together with what it is over.
struct Signed {
    DigestKind kind = DigestKind::Sha256;
    std::string digest;
    std::string signature;
    std::vector<std::string> certificates; ///< DER, the signer's first
};

/// Verifies the signature and, where one is demanded, that a chain leads from the signer to a trusted
/// certificate (within validity, with strong keys and digests, for code signing) and that the signer is
/// accepted. Returns the SHA-256 fingerprint of the signer's certificate in hexadecimal digits. Throws
/// Failure with the cause.
std::string verifySignature(const Signed& what, const TrustedCertificates& trusted);

} // namespace package
