// A signature with its certificates: parts of the input, each after its length in two bytes. The first is the
// digest, the second the signature, the others are certificates.
#include "Fuzz.h"
#include "installer/Failure.h"
#include "installer/Trust.h"

#include <openssl/pem.h>

#include <memory>
#include <vector>

using namespace installer;

namespace {

// Nobody's: its key was thrown away.
constexpr char kTrusted[] =
#include "Trusted.inc"
    ;

TrustedCertificates makeTrusted() {
    const std::unique_ptr<BIO, decltype(&BIO_free)> input(BIO_new_mem_buf(kTrusted, -1), BIO_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(
        PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr), X509_free);
    TrustedCertificates trusted;
    trusted.add(certificate.get());
    return trusted;
}

std::string takePart(std::string_view& input) {
    if (input.size() < 2) {
        return {};
    }
    const std::size_t size =
        static_cast<unsigned char>(input[0]) * 256U + static_cast<unsigned char>(input[1]);
    const std::string part(input.substr(2, size));
    input.remove_prefix(2 + part.size());
    return part;
}

} // namespace

void fuzz(std::string_view input) {
    static const TrustedCertificates trusted = makeTrusted();
    Signed what;
    what.digest = takePart(input);
    what.signature = takePart(input);
    while (input.size() >= 2 && what.certificates.size() < 10) {
        what.certificates.push_back(takePart(input));
    }
    static const TrustedCertificates none;
    for (const bool demanding : {false, true}) {
        try {
            verifySignature(what, demanding ? trusted : none);
        } catch (const Failure&) {
        }
    }
}
