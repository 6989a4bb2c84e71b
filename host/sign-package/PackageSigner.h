#pragma once

#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

struct FreeKey {
    void operator()(evp_pkey_st* key) const;
};
struct FreeCertificate {
    void operator()(x509_st* certificate) const;
};
using Key = std::unique_ptr<evp_pkey_st, FreeKey>;
using Certificate = std::unique_ptr<x509_st, FreeCertificate>;

// Who signs.
struct Publisher {
    Key key;                               // RSA
    std::vector<Certificate> certificates; // the key's own first, then those of its issuers
};

// Reads the key from a PEM file, and asks at the terminal for its passphrase if it has one, and the
// certificates from theirs. Warns on standard error when others can read the key's file. Throws
// package::Failure when a file cannot be read or holds none, or when the passphrase is wrong.
Publisher readPublisher(const std::string& keyFile, const std::vector<std::string>& certificateFiles);

// Writes the package at `in` to `out` with a table and a signature of its own: SHA-256 for every entry and
// the table, RSA over the table. A signature that is there is replaced. `out` appears only when complete.
// Returns the fingerprint of the publisher's certificate. Throws package::Failure when an installer would
// refuse the package or its signature, by the same checks, or when `out` cannot be written.
std::string signPackage(const std::string& in, const std::string& out, const Publisher& publisher);
