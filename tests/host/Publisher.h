#pragma once

#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

// A key and its certificate, made for a test.
struct Identity {
    std::shared_ptr<evp_pkey_st> key;
    std::shared_ptr<x509_st> certificate;
};

struct Certified {
    const char* name = "Test publisher";
    const Identity* issuer = nullptr; // none: itself
    bool isAuthority = false;
    const char* purposes = "codeSigning"; // extended key usage; none: not stated
    int bits = 2048;
    long begins = -3600; // seconds from now
    long ends = 86400;
    const char* digest = "SHA256"; // that the issuer signs with
};

Identity certify(const Certified& wanted);
inline Identity authority(const char* name) {
    return certify({.name = name, .isAuthority = true, .purposes = nullptr});
}

std::size_t keyBytes(const Identity& identity); // what a signature takes
std::string keyPem(const Identity& identity);
std::string certificatePem(const Identity& identity);

// An archive of any table whatever, with a valid signature over it. `files` are the table's file elements and
// `heap` is what lies behind the signature, from kHeapBegin on with SHA-256 and a key of 2048 bits.
constexpr int kHeapBegin = 32 + 256;
std::string seal(const std::string& files, const std::string& heap, const std::vector<Identity>& chain,
                 const std::string& digest = "sha256");

std::string digestOf(const std::string& bytes, const std::string& digest);
std::string hex(const std::string& bytes);
std::string compressed(const std::string& text);
std::string uncompressed(const std::string& bytes, std::size_t size);
