#pragma once

#include "host/package/Digest.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

/// A xar archive's header and table of contents. They are followed by the heap, which holds everything that
/// the table refers to, and to which all offsets are relative.
namespace package {

constexpr char kMagic[] = "xar!";
constexpr std::size_t kHeaderSize = 28;
constexpr std::size_t kLongestHeader = 64; ///< of one that names its digest, in the 36 bytes after the others
constexpr char kPlainEncoding[] = "application/octet-stream"; ///< bytes as they are
constexpr std::uint64_t kLargestTable = 1 << 20;              ///< bytes, both as stored and unpacked

struct Header {
    std::uint64_t size = 0;          ///< of the header itself, in bytes
    std::uint64_t tableLength = 0;   ///< of the table as stored
    std::uint64_t tableUnpacked = 0; ///< of the table's XML text
    DigestKind digest = DigestKind::Sha256;
};

struct Extent {
    std::uint64_t offset = 0;
    std::uint64_t length = 0;
};

struct Checksum {
    DigestKind kind = DigestKind::Sha256;
    std::string bytes;

    bool operator==(const Checksum&) const = default;
};

struct EntryData {
    Extent stored;
    std::uint64_t size = 0; ///< once decoded
    std::string encoding;   ///< a media type
    std::optional<Checksum> storedChecksum;
    std::optional<Checksum> decodedChecksum;
};

struct Entry {
    std::string path; ///< relative, without ".."; empty for an extended attribute
    bool isFolder = false;
    std::optional<EntryData> data; ///< none for folders and empty files
};

struct Signature {
    Extent place;
    std::vector<std::string> certificates; ///< DER, the signer's first
};

/// The part of the table that says who signed it.
struct Seal {
    DigestKind digestKind = DigestKind::Sha256;
    Extent digest;                      ///< where the table's own digest is stored
    std::optional<Signature> signature; ///< RSA over that digest
};

struct Table {
    Seal seal;
    std::vector<Extent> ignored; ///< other signatures, of kinds that are not used here
    std::vector<Entry> entries;  ///< in the table's order
};

/// Reads the archive's first bytes, kLongestHeader of them if it has as many. Throws Failure when they do not
/// begin an archive, name an unknown digest, or state a table larger than kLargestTable.
Header parseHeader(std::string_view bytes);

/// Reads only the seal from the table's XML text, in memory that does not depend on the number of entries.
/// Throws Failure when it is malformed or ambiguous.
Seal parseSeal(std::string_view xml);

/// Reads the whole of it. Throws Failure when anything in it is malformed or ambiguous, when two entries have
/// one name, when an entry is neither a file nor a folder, or when there is too much of it.
Table parseTable(std::string_view xml);

/// Throws Failure when two of the table's parts overlap, or one reaches beyond the heap. Returns whether they
/// take up all of it; some writers leave a few stray bytes.
bool accountsForAll(const Table& table, std::uint64_t heapSize);

} // namespace package
