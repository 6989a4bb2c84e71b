// The entry points of the fuzz targets; each target is built for one of them.
#include "installer/Receipt.h"
#include "package/Failure.h"
#include "package/Package.h"
#include "package/PackageInfo.h"
#include "package/Payload.h"
#include "package/Trust.h"
#include "package/Version.h"

#include <endian.h>
#include <openssl/x509.h>
#include <sys/mman.h>
#include <unistd.h>
#include <zlib.h>

// NOLINTBEGIN(misc-use-internal-linkage): each target uses one of these functions
namespace package {

struct Nowhere : PayloadSink {
    void begin(const PayloadEntry& entry) override {
        if (entry.path.empty() || entry.path.front() == '/' || entry.path.starts_with("..")) {
            __builtin_trap();
        }
    }
    void data(const void*, std::size_t, std::int64_t) override {}
    void end() override {}
};

std::string assemble(const std::string& table, const std::string& heap) {
    uLongf size = compressBound(table.size());
    std::string packed(size, '\0');
    const auto* text = reinterpret_cast<const Bytef*>(table.data());
    compress(reinterpret_cast<Bytef*>(packed.data()), &size, text, table.size());
    packed.resize(size);
    const std::uint64_t sizes[] = {htobe64(packed.size()), htobe64(table.size())};
    Digest digest(DigestKind::Sha256);
    digest.update(packed.data(), packed.size());
    return std::string("xar!\0\x1c\0\1", 8).append(reinterpret_cast<const char*>(sizes), sizeof sizes) +
           std::string("\0\0\0\3", 4) + packed + digest.finish() + heap;
}

// A package's file, or a table's text, a NUL and the heap behind the table's digest: assembled here, since no
// random change would get a digest right.
void fuzzPackage(std::string input) {
    if (const std::size_t end = input.find('\0'); !input.starts_with(kMagic) && end != std::string::npos) {
        input = assemble(input.substr(0, end), input.substr(end + 1));
    }
    FileDescriptor file(memfd_create("package", MFD_CLOEXEC));
    (void)!write(file.get(), input.data(), input.size());
    const Package package(std::move(file));
    package.verifyEntries();
    if (const Entry* info = package.find("PackageInfo")) {
        parsePackageInfo(package.text(*info, 1 << 16));
    }
    if (const Entry* payload = package.find("Payload")) {
        Nowhere sink;
        readPayload(*package.open(*payload), sink);
    }
}

// A table's text. Both readings find the same seal.
void fuzzTable(const std::string& input) {
    const Seal seal = parseSeal(input);
    const Table table = parseTable(input);
    if (seal.digest.offset != table.seal.digest.offset ||
        bool(seal.signature) != bool(table.seal.signature)) {
        __builtin_trap();
    }
    for (const Entry& entry : table.entries) {
        if (("/" + entry.path + "/").find("/../") != std::string::npos) {
            __builtin_trap();
        }
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

void fuzzReceipt(const std::string& input) {
    const installer::Receipt receipt = installer::parseReceipt(input);
    if (receipt.identifier.empty() || receipt.identifier.find('\n') != std::string::npos) {
        __builtin_trap();
    }
}

// Three versions between line feeds, which must be in one order.
void fuzzVersion(const std::string& input) {
    const std::size_t first = input.find('\n');
    const std::size_t second = first == std::string::npos ? first : input.find('\n', first + 1);
    if (second == std::string::npos) {
        return;
    }
    const std::string a = input.substr(0, first);
    const std::string b = input.substr(first + 1, second - first - 1);
    const std::string c = input.substr(second + 1);
    const bool isTransitive =
        !(compareVersions(a, b) <= 0 && compareVersions(b, c) <= 0) || compareVersions(a, c) <= 0;
    if (compareVersions(a, a) != 0 || (compareVersions(a, b) < 0) != (compareVersions(b, a) > 0) ||
        !isTransitive) {
        __builtin_trap();
    }
}

} // namespace package
// NOLINTEND(misc-use-internal-linkage)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) try {
    package::FUZZ_SUBJECT({reinterpret_cast<const char*>(data), size});
    return 0;
} catch (const package::Failure&) {
    return 0;
}
