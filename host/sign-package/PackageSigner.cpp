#include "host/sign-package/PackageSigner.h"

#include "base/ReadWrite.h"
#include "host/package/Contents.h"
#include "host/package/Failure.h"
#include "host/package/Package.h"
#include "host/package/Text.h"
#include "host/package/Trust.h"

#include <fcntl.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <cstdio>
#include <cstdlib>
#include <new>

namespace {

using namespace package;

constexpr DigestKind kKind = DigestKind::Sha256;
constexpr std::uint32_t kKindNumber = 3; // in a header

using File = Owner<std::FILE, std::fclose>;

File openFile(const std::string& path) {
    File file(std::fopen(path.c_str(), "rbe"));
    if (!file) {
        throw systemFailure("cannot open " + path);
    }
    return file;
}

void writeOut(int file, std::string_view bytes) {
    if (!writeAll(file, bytes)) {
        throw systemFailure("cannot write the package");
    }
}

std::string digestOf(EntryReader& reader) {
    Digest digest(kKind);
    for (std::string_view block = reader.next(); !block.empty(); block = reader.next()) {
        digest.update(block.data(), block.size());
    }
    return digest.finish();
}

std::string base64(const std::string& bytes) {
    std::string text(4 * (bytes.size() / 3 + 1) + 1, '\0');
    const int size =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()),
                        reinterpret_cast<const unsigned char*>(bytes.data()), static_cast<int>(bytes.size()));
    text.resize(static_cast<std::size_t>(size));
    return text;
}

std::string der(X509* certificate) {
    unsigned char* bytes = nullptr;
    const int size = i2d_X509(certificate, &bytes);
    if (size <= 0) {
        throw std::bad_alloc();
    }
    std::string text(reinterpret_cast<char*>(bytes), static_cast<std::size_t>(size));
    OPENSSL_free(bytes);
    return text;
}

std::string xmlText(const std::string& text) {
    std::string xml;
    for (const char c : text) {
        switch (c) {
        case '&':
            xml += "&amp;";
            break;
        case '<':
            xml += "&lt;";
            break;
        case '>':
            xml += "&gt;";
            break;
        default:
            xml += c;
        }
    }
    return xml;
}

void requireNoControls(const std::string& name) {
    if (oneLine(name) != name) {
        throw Failure("the package has a name with control characters");
    }
}

std::string element(const std::string& name, const std::string& text) {
    return "<" + name + ">" + text + "</" + name + ">\n";
}

std::string extent(std::uint64_t offset, const char* lengthName, std::uint64_t length) {
    return element("offset", std::to_string(offset)) + element(lengthName, std::to_string(length));
}

std::string checksum(const char* name, const std::string& digest) {
    return "<" + std::string(name) + " style=\"" + digestName(kKind) + "\">" + toHex(digest) + "</" + name +
           ">\n";
}

std::string toBigEndian(std::uint64_t value, int bytes) {
    std::string text;
    for (int i = bytes - 1; i >= 0; --i) {
        text += static_cast<char>(value >> (8 * i) & 0xff);
    }
    return text;
}

// The table's text for the package's files, whose bytes will lie one after another from `offset` on.
std::string describeFiles(const Package& package, std::uint64_t offset) {
    std::string xml;
    std::vector<std::string> open; // folders whose element has not ended
    std::size_t id = 0;
    for (const Entry& entry : package.table().entries) {
        if (entry.path.empty()) { // an extended attribute, of which the installer makes no use
            continue;
        }
        while (!open.empty() && !entry.path.starts_with(open.back() + "/")) {
            xml += "</file>\n";
            open.pop_back();
        }
        const std::string name = entry.path.substr(open.empty() ? 0 : open.back().size() + 1);
        requireNoControls(name);
        xml += "<file id=\"" + std::to_string(++id) + "\">\n" + element("name", xmlText(name)) +
               element("type", entry.isFolder ? "directory" : "file");
        if (entry.isFolder) {
            open.push_back(entry.path);
            continue;
        }
        if (entry.data) {
            const EntryData& data = *entry.data;
            xml += "<data>\n" + extent(offset, "length", data.stored.length) +
                   element("size", std::to_string(data.size)) + "<encoding style=\"" + data.encoding +
                   "\"/>\n" + checksum("archived-checksum", digestOf(*package.openAsStored(entry))) +
                   checksum("extracted-checksum", digestOf(*package.open(entry))) + "</data>\n";
            offset += data.stored.length;
        }
        xml += "</file>\n";
    }
    for (; !open.empty(); open.pop_back()) {
        xml += "</file>\n";
    }
    return xml;
}

std::string makeTable(const Package& package, const Publisher& publisher, std::uint64_t digestSize,
                      std::uint64_t signatureSize) {
    std::string certificates;
    for (const Certificate& certificate : publisher.certificates) {
        certificates += element("X509Certificate", base64(der(certificate.get())));
    }
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<xar>\n<toc>\n<checksum style=\"" +
           std::string(digestName(kKind)) + "\">\n" + extent(0, "size", digestSize) +
           "</checksum>\n<signature style=\"RSA\">\n" + extent(digestSize, "size", signatureSize) +
           "<KeyInfo xmlns=\"http://www.w3.org/2000/09/xmldsig#\">\n<X509Data>\n" + certificates +
           "</X509Data>\n</KeyInfo>\n</signature>\n" + describeFiles(package, digestSize + signatureSize) +
           "</toc>\n</xar>\n";
}

std::string deflated(const std::string& text) {
    uLongf size = compressBound(text.size());
    std::string packed(size, '\0');
    if (compress(reinterpret_cast<Bytef*>(packed.data()), &size, reinterpret_cast<const Bytef*>(text.data()),
                 text.size()) != Z_OK) {
        throw std::bad_alloc();
    }
    packed.resize(size);
    return packed;
}

std::string signatureOver(const std::string& digest, EVP_PKEY* key) {
    const Owner<EVP_PKEY_CTX, EVP_PKEY_CTX_free> context(EVP_PKEY_CTX_new(key, nullptr));
    std::string signature(static_cast<std::size_t>(EVP_PKEY_get_size(key)), '\0');
    std::size_t size = signature.size();
    if (!context || EVP_PKEY_sign_init(context.get()) != 1 ||
        EVP_PKEY_CTX_set_rsa_padding(context.get(), RSA_PKCS1_PADDING) != 1 ||
        EVP_PKEY_CTX_set_signature_md(context.get(), digestMethod(kKind)) != 1 ||
        EVP_PKEY_sign(context.get(), reinterpret_cast<unsigned char*>(signature.data()), &size,
                      reinterpret_cast<const unsigned char*>(digest.data()), digest.size()) != 1 ||
        size != signature.size()) {
        throw Failure("the key cannot sign");
    }
    return signature;
}

// A file that appears under its name only when it is complete. Until then it has a name that no one can
// predict, so that no link can be put in its way, and no one else can read it.
class OutputFile {
  public:
    explicit OutputFile(const std::string& path) : path_(path), unfinished_(path + ".XXXXXX") {
        // Taking the name of a link or a device would not be writing to it.
        struct stat status{};
        if (lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode)) {
            throw Failure("the output exists and is not a regular file");
        }
        file_ = FileDescriptor(mkostemp(unfinished_.data(), O_CLOEXEC | O_NOFOLLOW)); // and O_EXCL
        if (!file_.isOpen()) {
            throw systemFailure("cannot write the package");
        }
    }
    OutputFile(const OutputFile&) = delete;
    OutputFile& operator=(const OutputFile&) = delete;
    ~OutputFile() { unlink(unfinished_.c_str()); }

    int file() const { return file_.get(); }

    void finish() {
        const mode_t mask = umask(0);
        umask(mask);
        if (fchmod(file_.get(), 0666 & ~mask) != 0 || fsync(file_.get()) != 0 ||
            rename(unfinished_.c_str(), path_.c_str()) != 0) {
            throw systemFailure("cannot write the package");
        }
    }

  private:
    std::string path_;
    std::string unfinished_;
    FileDescriptor file_;
};

// Asks for the passphrase as OpenSSL does by default, and notes that there is one.
int askPassphrase(char* passphrase, int size, int isForWriting, void* wasAsked) {
    *static_cast<bool*>(wasAsked) = true;
    return PEM_def_callback(passphrase, size, isForWriting, nullptr);
}

Key readKey(const std::string& path) {
    const File file = openFile(path);
    struct stat status{};
    if (fstat(fileno(file.get()), &status) == 0 && (status.st_mode & (S_IRGRP | S_IROTH)) != 0) {
        std::fprintf(stderr, "sign-package: Warning - others can read the key in %s\n", path.c_str());
    }
    bool wasAsked = false;
    Key key(PEM_read_PrivateKey(file.get(), nullptr, askPassphrase, &wasAsked));
    if (!key) {
        throw Failure((wasAsked ? "the passphrase is wrong for the key in " : "no key can be read in ") +
                      path);
    }
    if (EVP_PKEY_get_base_id(key.get()) != EVP_PKEY_RSA) {
        throw Failure("no RSA key is in " + path);
    }
    return key;
}

// Each of these would be refused at the end, in words meant for the user who installs.
void requireChain(const Publisher& publisher) {
    const std::vector<Certificate>& chain = publisher.certificates;
    if (X509_check_private_key(chain.front().get(), publisher.key.get()) != 1) {
        throw Failure("the first certificate is not the key's");
    }
    for (std::size_t i = 1; i < chain.size(); ++i) {
        if (X509_check_issued(chain[i].get(), chain[i - 1].get()) != X509_V_OK) {
            throw Failure("certificate " + std::to_string(i + 1) + " did not issue the one before it");
        }
    }
}

// Reads what was written as an installer will: the package that it was made from may have changed meanwhile.
std::string verifyOutput(int file, const Publisher& publisher) {
    TrustedCertificates trusted;
    trusted.add(publisher.certificates.back().get());
    trusted.pin(publicKeyDigest(publisher.certificates.front().get()));
    const Package package(FileDescriptor(fcntl(file, F_DUPFD_CLOEXEC, 0)), trusted);
    package.verifyEntries();
    checkContents(package);
    return package.signer();
}

} // namespace

Publisher readPublisher(const std::string& keyFile, const std::vector<std::string>& certificateFiles) {
    Publisher publisher;
    publisher.key = readKey(keyFile);
    for (const std::string& path : certificateFiles) {
        const File file = openFile(path);
        const std::size_t before = publisher.certificates.size();
        while (Certificate certificate{PEM_read_X509(file.get(), nullptr, nullptr, nullptr)}) {
            publisher.certificates.push_back(std::move(certificate));
        }
        ERR_clear_error(); // the end of the file counts as one
        if (publisher.certificates.size() == before) {
            throw Failure("no certificate that can be read is in " + path);
        }
    }
    requireChain(publisher);
    return publisher;
}

std::string signPackage(const std::string& in, const std::string& out, const Publisher& publisher) {
    FileDescriptor file(open(in.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)); // a pipe must not hold it up
    if (!file.isOpen()) {
        throw systemFailure("cannot open " + in);
    }
    const Package package(std::move(file));
    package.verifyEntries();
    checkContents(package);

    EVP_PKEY* key = publisher.key.get();
    const std::string table =
        makeTable(package, publisher, static_cast<std::uint64_t>(EVP_MD_get_size(digestMethod(kKind))),
                  static_cast<std::uint64_t>(EVP_PKEY_get_size(key)));
    const std::string packed = deflated(table);
    Digest digest(kKind);
    digest.update(packed.data(), packed.size());
    const std::string tableDigest = digest.finish();
    const std::string signature = signatureOver(tableDigest, key);

    OutputFile output(out);
    writeOut(output.file(), kMagic + toBigEndian(kHeaderSize, 2) + toBigEndian(1, 2) +
                                toBigEndian(packed.size(), 8) + toBigEndian(table.size(), 8) +
                                toBigEndian(kKindNumber, 4));
    writeOut(output.file(), packed + tableDigest + signature);
    for (const Entry& entry : package.table().entries) {
        if (entry.path.empty() || !entry.data) {
            continue;
        }
        const std::unique_ptr<EntryReader> reader = package.openAsStored(entry);
        for (std::string_view block = reader->next(); !block.empty(); block = reader->next()) {
            writeOut(output.file(), block);
        }
    }
    std::string fingerprint = verifyOutput(output.file(), publisher);
    output.finish();
    return fingerprint;
}
