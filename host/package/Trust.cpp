#include "host/package/Trust.h"

#include "base/FileDescriptor.h"
#include "base/Ownership.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>

#include <cerrno>
#include <new>
#include <optional>
#include <sstream>

namespace fs = std::filesystem;

namespace package {

namespace {

constexpr int kSmallestKey = 2048; // bits
constexpr int kStrength = 2;       // OpenSSL's level of 112 bits: RSA from 2048 bits, no SHA-1
constexpr off_t kLargestPem = 1 << 20;

using Certificate = Owner<X509, X509_free>;
using Input = Owner<BIO, BIO_free_all>;
using KeyContext = Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free>;
using Verification = Owner<X509_STORE_CTX, X509_STORE_CTX_free>;

void freeStack(STACK_OF(X509) * stack) {
    sk_X509_pop_free(stack, X509_free);
}
using CertificateStack = Owner<STACK_OF(X509), freeStack>;

// What OpenSSL has made; it makes nothing if there is no memory.
template <typename Object>
Object* made(Object* object) {
    if (!object) {
        throw std::bad_alloc();
    }
    return object;
}

void requireOursAlone(int file, const std::string& what) {
    struct stat status{};
    if (fstat(file, &status) != 0) {
        throw systemFailure(what + " cannot be examined");
    }
    if (!isOursAlone(status)) {
        throw Failure(what + " can be changed by others than the administrator", FailureKind::Signature);
    }
}

std::string readTrusted(int folder, const std::string& name) {
    const FileDescriptor file(openat(folder, name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    struct stat status{};
    if (!file.isOpen() || fstat(file.get(), &status) != 0) {
        throw systemFailure("cannot be read");
    }
    requireOursAlone(file.get(), "the file");
    if (!S_ISREG(status.st_mode) || status.st_size > kLargestPem) {
        throw Failure("is not a file of certificates", FailureKind::Signature);
    }
    std::string content(static_cast<std::size_t>(status.st_size), '\0');
    if (read(file.get(), content.data(), content.size()) != status.st_size) {
        throw Failure("cannot be read", FailureKind::Signature);
    }
    return content;
}

bool leadsThroughDanglingLink(const fs::path& path) {
    std::error_code problem;
    for (fs::path place = path; !place.empty() && place != place.root_path(); place = place.parent_path()) {
        if (fs::is_symlink(fs::symlink_status(place, problem)) && !fs::exists(place, problem)) {
            return true;
        }
    }
    return false;
}

Certificate parse(const std::string& der) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(der.data());
    const unsigned char* const end = bytes + der.size();
    Certificate certificate(d2i_X509(nullptr, &bytes, static_cast<long>(der.size())));
    if (!certificate || bytes != end) {
        throw Failure("the package's signature has a certificate that cannot be read",
                      FailureKind::Signature);
    }
    return certificate;
}

std::string fingerprint(X509* certificate) {
    unsigned char bytes[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    if (X509_digest(certificate, EVP_sha256(), bytes, &size) != 1) {
        throw std::bad_alloc();
    }
    return toHex({reinterpret_cast<const char*>(bytes), size});
}

void verifyWithKey(X509* signer, const SignedDigest& what) {
    EVP_PKEY* key = X509_get0_pubkey(signer);
    if (key == nullptr || EVP_PKEY_get_base_id(key) != EVP_PKEY_RSA) {
        throw Failure("the package's signature is not made with an RSA key", FailureKind::Signature);
    }
    if (EVP_PKEY_get_bits(key) < kSmallestKey) {
        throw Failure("the signer's key is too short: it has fewer than 2048 bits", FailureKind::Signature);
    }
    const KeyContext context(made(EVP_PKEY_CTX_new(key, nullptr)));
    if (EVP_PKEY_verify_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), digestMethod(what.kind)) != 1 ||
        EVP_PKEY_verify(context.get(), reinterpret_cast<const unsigned char*>(what.signature.data()),
                        what.signature.size(), reinterpret_cast<const unsigned char*>(what.digest.data()),
                        what.digest.size()) != 1) {
        throw Failure("the package's signature does not match its table", FailureKind::Signature);
    }
}

// OpenSSL 3.0 has no purpose of this kind among those that it checks by default.
void requireMeantForSigning(const STACK_OF(X509) * chain) {
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        X509* certificate = sk_X509_value(chain, i);
        const std::uint32_t flags = X509_get_extension_flags(certificate);
        const std::uint32_t purposes = X509_get_extended_key_usage(certificate); // all, if none are named
        const bool named = (flags & EXFLAG_XKUSAGE) != 0;
        const bool isSigner = i == 0;
        if (isSigner ? !named || (purposes & XKU_CODE_SIGN) == 0
                     : named && (purposes & (XKU_CODE_SIGN | XKU_ANYEKU)) == 0) {
            throw Failure(isSigner ? "the signer's certificate is not meant for signing code"
                                   : "a certificate of the signer's chain is not meant for signing code",
                          FailureKind::Signature);
        }
        if (isSigner && (X509_get_key_usage(certificate) & KU_DIGITAL_SIGNATURE) == 0) {
            throw Failure("the signer's certificate is not meant for signatures", FailureKind::Signature);
        }
    }
}

std::string chainFailure(int code) {
    switch (code) {
    case X509_V_ERR_CERT_HAS_EXPIRED:
        return "a certificate of the signer's chain has expired";
    case X509_V_ERR_CERT_NOT_YET_VALID:
        return "a certificate of the signer's chain is not valid yet; see the machine's date";
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT:
    case X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY:
    case X509_V_ERR_UNABLE_TO_VERIFY_LEAF_SIGNATURE:
    case X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT:
    case X509_V_ERR_SELF_SIGNED_CERT_IN_CHAIN:
    case X509_V_ERR_CERT_UNTRUSTED:
        return "the signer is not trusted on this machine";
    case X509_V_ERR_EE_KEY_TOO_SMALL:
    case X509_V_ERR_CA_KEY_TOO_SMALL:
        return "a key of the signer's chain is too short";
    case X509_V_ERR_CA_MD_TOO_WEAK:
        return "a certificate of the signer's chain is signed with too weak a digest";
    default:
        return std::string("the signer's chain does not hold: ") + X509_verify_cert_error_string(code);
    }
}

void verifyChain(X509* signer, STACK_OF(X509) * chain, const TrustedCertificates& trusted) {
    const Verification verification(made(X509_STORE_CTX_new()));
    if (X509_STORE_CTX_init(verification.get(), trusted.store(), signer, chain) != 1) {
        throw std::bad_alloc();
    }
    X509_VERIFY_PARAM* rules = X509_STORE_CTX_get0_param(verification.get());
    X509_VERIFY_PARAM_set_auth_level(rules, kStrength);
    // A publisher's own certificate may be trusted without its issuer's.
    X509_VERIFY_PARAM_set_flags(rules, X509_V_FLAG_PARTIAL_CHAIN);
    if (X509_verify_cert(verification.get()) != 1) {
        throw Failure(chainFailure(X509_STORE_CTX_get_error(verification.get())), FailureKind::Signature);
    }
    requireMeantForSigning(X509_STORE_CTX_get0_chain(verification.get()));
    trusted.requireAccepted(signer);
}

} // namespace

TrustedCertificates::TrustedCertificates() : store_(made(X509_STORE_new())) {}

void TrustedCertificates::addFolder(const fs::path& folder) {
    const std::string what = "the folder of trusted certificates";
    const FileDescriptor opened(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!opened.isOpen()) {
        if (errno == ENOENT && !leadsThroughDanglingLink(folder)) {
            return;
        }
        throw systemFailure(what + " cannot be read");
    }
    requireOursAlone(opened.get(), what);
    std::error_code problem;
    for (fs::directory_iterator file(folder, problem), end; !problem && file != end;
         file.increment(problem)) {
        isDemanding_ = true;
        const std::string name = file->path().filename().string();
        if (name.front() == '.' || name.find(".dpkg-") != std::string::npos) {
            continue; // may be a former publisher's
        }
        try {
            addFile(readTrusted(opened.get(), name), name.ends_with(".keys"));
        } catch (const Failure& failure) {
            throw Failure("the trusted certificate " + inQuotes(name) + " " + failure.what(),
                          FailureKind::Signature);
        }
    }
    if (problem) {
        throw Failure(what + " cannot be read: " + problem.message(), FailureKind::Signature);
    }
}

void TrustedCertificates::addFile(const std::string& content, bool arePins) {
    if (arePins) {
        std::istringstream lines(content);
        for (std::string line; std::getline(lines, line);) {
            const std::optional<std::string> digest = fromHex(line);
            if (!digest || digest->size() != 32) {
                throw Failure("has a line that is not the SHA-256 digest of a key", FailureKind::Signature);
            }
            pin(toHex(*digest));
        }
        return;
    }
    const Input input(made(BIO_new_mem_buf(content.data(), static_cast<int>(content.size()))));
    bool hasAny = false;
    while (const Certificate certificate{PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr)}) {
        add(certificate.get());
        hasAny = true;
    }
    // Anything but the end of the file would leave certificates out.
    const bool atEnd = ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
    ERR_clear_error();
    if (!atEnd || !hasAny) {
        throw Failure("cannot be read", FailureKind::Signature);
    }
}

void TrustedCertificates::add(X509* certificate) {
    if (X509_STORE_add_cert(store_.get(), certificate) != 1) {
        throw std::bad_alloc();
    }
    certificates_.insert(fingerprint(certificate));
    isDemanding_ = true;
}

void TrustedCertificates::requireAccepted(X509* signer) const {
    if (certificates_.count(fingerprint(signer)) == 0 && pins_.count(publicKeyDigest(signer)) == 0) {
        throw Failure("the signer has a certificate of a trusted authority, but is not trusted itself",
                      FailureKind::Signature);
    }
}

std::string publicKeyDigest(X509* certificate) {
    unsigned char* bytes = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(certificate), &bytes);
    if (size <= 0) {
        throw std::bad_alloc();
    }
    Digest digest(DigestKind::Sha256);
    digest.update(bytes, static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return toHex(digest.finish());
}

std::string verifySignature(const SignedDigest& what, const TrustedCertificates& trusted) {
    if (what.certificates.empty()) {
        throw Failure("the package's signature names no signer", FailureKind::Signature);
    }
    const Certificate signer = parse(what.certificates.front());
    const CertificateStack others(made(sk_X509_new_null()));
    for (std::size_t i = 1; i < what.certificates.size(); ++i) {
        Certificate certificate = parse(what.certificates[i]);
        if (sk_X509_push(others.get(), certificate.get()) <= 0) {
            throw std::bad_alloc();
        }
        [[maybe_unused]] const X509* const owned = certificate.release(); // by the stack
    }
    if (trusted.demandsSignature() && !isStrong(what.kind)) {
        throw Failure("the package's signature is over a digest that is too weak", FailureKind::Signature);
    }
    verifyWithKey(signer.get(), what);
    if (trusted.demandsSignature()) {
        verifyChain(signer.get(), others.get(), trusted);
    }
    return fingerprint(signer.get());
}

} // namespace package
