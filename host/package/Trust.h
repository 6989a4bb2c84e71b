#pragma once

#include "base/Owner.h"
#include "host/package/Digest.h"

#include <openssl/x509.h>

#include <filesystem>
#include <set>
#include <string>
#include <string_view>
#include <vector>

namespace package {

/// The certificates that a signature must lead to, and whether one is demanded.
///
/// A signer is accepted if its own certificate is trusted, or if its certificate leads to a trusted one (an
/// authority's) and its public key is pinned. An authority certifies others, too; so trusting only its
/// certificate accepts no package.
///
/// A folder of trusted certificates holds files in PEM form, with one or more certificates each, and files
/// named *.keys: a pin on each line, the SHA-256 digest of a public key (its SubjectPublicKeyInfo in DER
/// form) in 64 hexadecimal digits. Hidden files and those that dpkg set aside (*.dpkg-*) are not read; but
/// if a folder is not empty, whatever it holds, a signature is demanded.
class TrustedCertificates {
  public:
    /// Nothing is trusted.
    TrustedCertificates();

    /// Demands a signature in any case.
    void demandSignature() { isDemanding_ = true; }

    /// Reads the folder; adds nothing if it does not exist. Throws Failure if others than root (or the
    /// user who runs this program) can change the folder or a file in it, or when anything in it cannot be
    /// read.
    void addFolder(const std::filesystem::path& folder);

    /// Adds one certificate. Throws std::bad_alloc.
    void add(X509* certificate);

    /// Adds a pin: 64 hexadecimal digits in lower case.
    void pin(const std::string& key) { pins_.insert(key); }

    bool demandsSignature() const { return isDemanding_; }

    /// Throws Failure unless the signer is acceptable, given the chain that leads from it to a trusted
    /// certificate.
    void requireAccepted(X509* signer) const;

    X509_STORE* store() const { return store_.get(); }

  private:
    void addFile(const std::string& content, bool arePins);

    Owner<X509_STORE, X509_STORE_free> store_;
    std::set<std::string> certificates_; // fingerprints
    std::set<std::string> pins_;
    bool isDemanding_ = false;
};

/// The publisher's, which come with this program, and the administrator's.
inline constexpr const char* kTrustedFolders[] = {"/usr/lib/pellomar-installer/trusted",
                                                  "/etc/pellomar-installer/trusted"};

/// The SHA-256 digest of the certificate's public key, as it is pinned.
std::string publicKeyDigest(X509* certificate);

/// A signature together with what it is over.
struct SignedDigest {
    DigestKind kind = DigestKind::Sha256;
    std::string digest;
    std::string signature;
    std::vector<std::string> certificates; ///< DER, the signer's first
};

/// Verifies the signature and, if one is demanded, that a chain leads from the signer to a trusted
/// certificate (within validity, with strong keys and digests, for code signing) and that the signer is
/// accepted. Returns the SHA-256 fingerprint of the signer's certificate in hexadecimal digits. Throws
/// Failure with the cause.
std::string verifySignature(const SignedDigest& what, const TrustedCertificates& trusted);

} // namespace package
