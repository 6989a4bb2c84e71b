#pragma once

#include "base/Owner.h"

#include <openssl/evp.h>
#include <openssl/x509.h>

#include <string>
#include <vector>

using Key = Owner<EVP_PKEY, EVP_PKEY_free>;
using Certificate = Owner<X509, X509_free>;

/// The key and the certificates that a package is signed with.
struct Publisher {
    Key key;                               ///< RSA
    std::vector<Certificate> certificates; ///< the key's own first, then those of its issuers
};

/// Reads the key and the certificates from PEM files. Asks on the terminal for the key's passphrase if it has
/// one. Warns on standard error when others can read the key's file. Throws package::Failure when a file
/// cannot be read or holds none, the passphrase is wrong, the key is not RSA, the first certificate is not
/// the key's, or a certificate did not issue the one before it.
Publisher readPublisher(const std::string& keyFile, const std::vector<std::string>& certificateFiles);

/// Writes the package at `in` to `out` with a table and a signature of its own: SHA-256 for every entry and
/// the table, RSA over the table. A signature that is there is replaced. `out` appears only when complete.
/// Returns the fingerprint of the publisher's certificate. Throws package::Failure when an installer would
/// refuse the package or its signature, by the same checks, or when `out` cannot be written.
std::string signPackage(const std::string& in, const std::string& out, const Publisher& publisher);
