// The fuzz targets. The environment variable FUZZ_TARGET names the one that gets the inputs.
#include "base/ReadWrite.h"
#include "host/installer/Receipt.h"
#include "host/package/Contents.h"
#include "host/package/Failure.h"
#include "host/package/Package.h"
#include "host/package/Payload.h"
#include "host/package/Trust.h"
#include "host/package/Version.h"

#include <fcntl.h>
#include <openssl/x509.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

using namespace package;

namespace {

void require(bool isTrue) {
    if (!isTrue) {
        __builtin_trap();
    }
}

void requireInside(const std::string& path) {
    require(!path.starts_with('/') && ("/" + path + "/").find("/../") == std::string::npos);
}

FileDescriptor fileWith(std::string_view content) {
    FileDescriptor file(memfd_create("input", MFD_CLOEXEC));
    require(writeAll(file.get(), content) && lseek(file.get(), 0, SEEK_SET) == 0);
    return file;
}

// A folder that holds the input only.
const std::string& folderWith(const char* name, std::string_view content) {
    static const std::string folder = [] {
        char path[] = "/dev/shm/fuzz.XXXXXX";
        return std::string(mkdtemp(path));
    }();
    static std::string last;
    unlink(last.c_str());
    last = folder + "/" + name;
    const FileDescriptor file(open(last.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_CLOEXEC, 0600));
    require(writeAll(file.get(), content));
    return folder;
}

struct Nowhere : PayloadSink {
    void begin(const PayloadEntry& entry) override { requireInside(entry.path); }
    void data(const void*, std::size_t, std::int64_t) override {}
    void end() override {}
};

// A package's file or, since no random change would get a digest right, a payload.
void fuzzPackage(const std::string& input) {
    FileDescriptor file = fileWith(input);
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
        requireInside(entry.path);
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

void fuzzInfo(const std::string& input) {
    const PackageInfo info = parsePackageInfo(input);
    require(isVersion(info.version));
    requireInside(info.location);
}

void fuzzReceipt(const std::string& input) {
    installer::ReceiptReader receipt(fileWith(input), "input");
    while (receipt.nextPlace()) {
    }
}

// A file of certificates or, behind a first "k", of keys.
void fuzzTrust(const std::string& input) {
    const bool areKeys = input.starts_with('k');
    TrustedCertificates trusted;
    trusted.addFolder(
        folderWith(areKeys ? "a.keys" : "a.pem", std::string_view(input).substr(areKeys ? 1 : 0)));
}

// Bytes in each encoding. The first one chooses.
void fuzzDecoder(const std::string& input) {
    constexpr const char* kEncodings[] = {kPlainEncoding, "application/x-gzip", "application/x-bzip2"};
    const FileDescriptor file = fileWith(input);
    const std::uint64_t size = std::max<std::size_t>(input.size(), 1) - 1;
    const std::size_t kind = input.empty() ? 0 : static_cast<unsigned char>(input[0]) % 3;
    const std::uint64_t unpacked = kind == 0 ? size : std::uint64_t(1) << 62; // refused at the end
    EntryReader reader(file.get(), 1, {{0, size}, unpacked, kEncodings[kind], {}, {}});
    GzipReader gzip(reader);
    std::array<char, 1000> block{};
    for (std::size_t left = 1 << 24; left > 0;) {
        const std::size_t got = gzip.read(block.data(), std::min(block.size(), left));
        left -= got;
        if (got == 0) {
            return;
        }
    }
}

const std::map<std::string, void (*)(const std::string&)> kTargets = {
    {"decoder", fuzzDecoder},     {"info", fuzzInfo},   {"package", fuzzPackage}, {"receipt", fuzzReceipt},
    {"signature", fuzzSignature}, {"table", fuzzTable}, {"trust", fuzzTrust}};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) try {
    static const auto target = kTargets.at(std::getenv("FUZZ_TARGET"));
    target({reinterpret_cast<const char*>(data), size});
    return 0;
} catch (const Failure&) {
    return 0;
}
