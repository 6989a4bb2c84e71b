// The entry points of the fuzz targets; each target is built for one of them.
#include "package/Contents.h"
#include "package/Failure.h"
#include "package/Package.h"
#include "package/Payload.h"
#include "package/Trust.h"

#include <openssl/x509.h>
#include <sys/mman.h>
#include <unistd.h>

// NOLINTBEGIN(misc-use-internal-linkage): each target uses one of these functions
namespace package {

void require(bool isTrue) {
    if (!isTrue) {
        __builtin_trap();
    }
}

struct Nowhere : PayloadSink {
    void begin(const PayloadEntry& entry) override {
        require(!entry.path.empty() && entry.path.front() != '/' && !entry.path.starts_with(".."));
    }
    void data(const void*, std::size_t, std::int64_t) override {}
    void end() override {}
};

// A package's file or, since no random change would get a digest right, a payload.
void fuzzPackage(const std::string& input) {
    FileDescriptor file(memfd_create("package", MFD_CLOEXEC));
    (void)!write(file.get(), input.data(), input.size());
    if (!input.starts_with(kMagic)) {
        EntryReader payload(file.get(), 0, {{0, input.size()}, input.size(), kPlainEncoding, {}, {}});
        Nowhere sink;
        return readPayload(payload, sink);
    }
    const Package package(std::move(file));
    package.verifyEntries();
    checkContents(package);
}

// A table's text. Both readings find the same seal.
void fuzzTable(const std::string& input) {
    const Seal seal = parseSeal(input);
    const Table table = parseTable(input);
    require(seal.digest.offset == table.seal.digest.offset);
    require(bool(seal.signature) == bool(table.seal.signature));
    for (const Entry& entry : table.entries) {
        require(("/" + entry.path + "/").find("/../") == std::string::npos);
    }
    accountsForAll(table, input.size());
}

// The digest, the signature and certificates, of which the last is trusted; each after its length in two
// bytes.
void fuzzSignature(const std::string& input) {
    std::vector<std::string> parts;
    for (std::size_t at = 0; at + 2 <= input.size() && parts.size() < 12; at += 2 + parts.back().size()) {
        parts.push_back(input.substr(at + 2, std::uint8_t(input[at]) * 256U + std::uint8_t(input[at + 1])));
    }
    parts.resize(std::max<std::size_t>(parts.size(), 3));
    const auto* der = reinterpret_cast<const unsigned char*>(parts.back().data());
    TrustedCertificates trusted;
    if (X509* certificate = d2i_X509(nullptr, &der, static_cast<long>(parts.back().size()))) {
        trusted.add(certificate);
        X509_free(certificate);
    }
    verifySignature({DigestKind::Sha256, parts[0], parts[1], {parts.begin() + 2, parts.end()}}, trusted);
}

} // namespace package
// NOLINTEND(misc-use-internal-linkage)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) try {
    package::FUZZ_SUBJECT({reinterpret_cast<const char*>(data), size});
    return 0;
} catch (const package::Failure&) {
    return 0;
}
