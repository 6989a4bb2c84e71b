#include "Publisher.h"

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <zlib.h>

#include <map>

namespace {

// Making keys takes long, and tests tell identities apart by their certificates and names.
std::shared_ptr<evp_pkey_st> makeKey(const std::string& name, int bits) {
    static std::map<std::pair<std::string, int>, std::shared_ptr<evp_pkey_st>> keys;
    std::shared_ptr<evp_pkey_st>& key = keys[{name, bits}];
    if (!key) {
        key = {EVP_RSA_gen(static_cast<unsigned>(bits)), EVP_PKEY_free};
    }
    return key;
}

void extend(X509* certificate, X509* issuer, int number, const char* value) {
    X509V3_CTX context;
    X509V3_set_ctx(&context, issuer, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* extension = X509V3_EXT_conf_nid(nullptr, &context, number, value);
    ASSERT_NE(extension, nullptr);
    X509_add_ext(certificate, extension, -1);
    X509_EXTENSION_free(extension);
}

template <typename Write>
std::string pem(Write write) {
    const std::unique_ptr<BIO, decltype(&BIO_free)> memory(BIO_new(BIO_s_mem()), BIO_free);
    EXPECT_EQ(write(memory.get()), 1);
    char* text = nullptr;
    const long size = BIO_get_mem_data(memory.get(), &text);
    return {text, static_cast<std::size_t>(size)};
}

std::string sign(const std::string& digest, const Identity& signer, const std::string& kind) {
    const std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
        EVP_PKEY_CTX_new(signer.key.get(), nullptr), EVP_PKEY_CTX_free);
    EXPECT_EQ(EVP_PKEY_sign_init(context.get()), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING), 1);
    EXPECT_EQ(EVP_PKEY_CTX_set_signature_md(context.get(), EVP_get_digestbyname(kind.c_str())), 1);
    std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(signer.key.get())), '\0');
    std::size_t size = signature.size();
    EXPECT_EQ(EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                            reinterpret_cast<const unsigned char*>(digest.data()), digest.size()),
              1);
    return signature;
}

std::string bigEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return text;
}

std::string base64(X509* certificate) {
    std::string text = pem([&](BIO* to) { return PEM_write_bio_X509(to, certificate); });
    text.erase(0, text.find('\n'));
    return text.erase(text.find('-'));
}

} // namespace

Identity certify(const Certified& wanted) {
    Identity made{makeKey(wanted.name, wanted.bits), {X509_new(), X509_free}};
    const Identity& issuer = wanted.issuer ? *wanted.issuer : made;
    X509* certificate = made.certificate.get();
    static long serial = 1;
    X509_set_version(certificate, 2);
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), serial++);
    X509_gmtime_adj(X509_getm_notBefore(certificate), wanted.begins);
    X509_gmtime_adj(X509_getm_notAfter(certificate), wanted.ends);
    X509_set_pubkey(certificate, made.key.get());
    X509_NAME_add_entry_by_txt(X509_get_subject_name(certificate), "CN", MBSTRING_UTF8,
                               reinterpret_cast<const unsigned char*>(wanted.name), -1, -1, 0);
    X509_set_issuer_name(certificate, X509_get_subject_name(issuer.certificate.get()));
    extend(certificate, issuer.certificate.get(), NID_basic_constraints,
           wanted.isAuthority ? "critical,CA:TRUE" : "critical,CA:FALSE");
    extend(certificate, issuer.certificate.get(), NID_key_usage,
           wanted.isAuthority ? "critical,keyCertSign" : "critical,digitalSignature");
    if (wanted.purposes) {
        extend(certificate, issuer.certificate.get(), NID_ext_key_usage, wanted.purposes);
    }
    EXPECT_GT(X509_sign(certificate, issuer.key.get(), EVP_get_digestbyname(wanted.digest)), 0);
    return made;
}

std::size_t keyBytes(const Identity& identity) {
    return static_cast<std::size_t>(EVP_PKEY_get_size(identity.key.get()));
}

std::string keyPem(const Identity& identity) {
    return pem([&](BIO* to) {
        return PEM_write_bio_PrivateKey(to, identity.key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string certificatePem(const Identity& identity) {
    return pem([&](BIO* to) { return PEM_write_bio_X509(to, identity.certificate.get()); });
}

std::string seal(const std::string& files, const std::string& heap, const std::vector<Identity>& chain,
                 const std::string& digest) {
    const std::map<std::string, int> kinds{{"sha1", 1}, {"sha256", 3}, {"sha512", 4}};
    const std::size_t digestSize = digestOf("", digest).size();
    std::string certificates;
    for (const Identity& identity : chain) {
        certificates += "<X509Certificate>" + base64(identity.certificate.get()) + "</X509Certificate>";
    }
    const std::string table =
        "<xar><toc><checksum style='" + digest + "'><offset>0</offset><size>" + std::to_string(digestSize) +
        "</size></checksum><signature style='RSA'><offset>" + std::to_string(digestSize) + "</offset><size>" +
        std::to_string(EVP_PKEY_get_size(chain.front().key.get())) + "</size><KeyInfo><X509Data>" +
        certificates + "</X509Data></KeyInfo></signature>" + files + "</toc></xar>";
    const std::string packed = compressed(table);
    const std::string sum = digestOf(packed, digest);
    return "xar!" + bigEndian(28, 2) + bigEndian(1, 2) + bigEndian(packed.size(), 8) +
           bigEndian(table.size(), 8) + bigEndian(static_cast<std::uint64_t>(kinds.at(digest)), 4) + packed +
           sum + sign(sum, chain.front(), digest) + heap;
}

std::string digestOf(const std::string& bytes, const std::string& digest) {
    unsigned char sum[EVP_MAX_MD_SIZE];
    unsigned size = 0;
    EXPECT_EQ(
        EVP_Digest(bytes.data(), bytes.size(), sum, &size, EVP_get_digestbyname(digest.c_str()), nullptr), 1);
    return {reinterpret_cast<char*>(sum), size};
}

std::string hex(const std::string& bytes) {
    std::string text;
    for (const char c : bytes) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", static_cast<unsigned char>(c));
        text += digits;
    }
    return text;
}

std::string compressed(const std::string& text) {
    uLongf size = compressBound(text.size());
    std::string bytes(size, '\0');
    EXPECT_EQ(compress(reinterpret_cast<Bytef*>(bytes.data()), &size,
                       reinterpret_cast<const Bytef*>(text.data()), text.size()),
              Z_OK);
    bytes.resize(size);
    return bytes;
}

std::string uncompressed(const std::string& bytes, std::size_t size) {
    std::string text(size, '\0');
    uLongf got = size;
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(text.data()), &got,
                         reinterpret_cast<const Bytef*>(bytes.data()), bytes.size()),
              Z_OK);
    return text;
}
