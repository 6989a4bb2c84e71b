#pragma once

#include "package/Digest.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// A xar archive's header and table of contents. Behind them lies the heap, which holds everything that the
// table names, and which all offsets count from.
namespace package {

constexpr char kMagic[] = "xar!";
constexpr std::size_t kHeaderSize = 28;
constexpr char kPlainEncoding[] = "application/octet-stream"; // bytes as they are
constexpr std::uint64_t kLargestTable = 8 << 20;              // bytes, both as stored and unpacked

struct Header {
    std::uint64_t size = 0;          // of the header itself, in bytes
    std::uint64_t tableLength = 0;   // of the table as stored
    std::uint64_t tableUnpacked = 0; // of the table's XML text
    DigestKind digest = DigestKind::Sha256;
};

struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

struct Checksum {
    DigestKind kind = DigestKind::Sha256;
    std::string bytes;
};

struct Data {
    Extent stored;
    std::uint64_t size = 0; // once decoded
    std::string encoding;   // a media type
    std::optional<Checksum> storedChecksum;
    std::optional<Checksum> decodedChecksum;
};

struct Entry {
    std::string path; // relative, and climbs nowhere; empty for an extended attribute
    bool isFolder = false;
    std::optional<Data> data; // none for folders and empty files
};

struct Signature {
    Extent place;
    std::vector<std::string> certificates; // DER, the signer's first
};

struct Table {
    DigestKind digestKind = DigestKind::Sha256;
    Extent digest;                      // where the table's own digest is stored
    std::optional<Signature> signature; // RSA over that digest
    std::vector<Extent> ignored;        // other signatures, of kinds that are not used here
    std::vector<Entry> entries;         // in the table's order
};

// Reads the archive's first bytes, at least kHeaderSize of them. Throws Failure when they start no archive,
// or name a digest that we do not know.
Header parseHeader(std::string_view bytes);

// Reads the table's XML text. Throws Failure when anything in it is malformed or ambiguous, when two entries
// have one name, or when an entry is neither a file nor a folder.
Table parseTable(std::string_view xml);

// Throws Failure when two of the table's parts overlap, or one reaches beyond the heap. Returns whether they
// take up all of it; some writers leave a few stray bytes.
bool accountsForAll(const Table& table, std::uint64_t heapSize);

} // namespace package
