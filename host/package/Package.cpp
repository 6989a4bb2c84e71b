#include "host/package/Package.h"

#include "base/ReadWrite.h"
#include "host/package/Failure.h"
#include "host/package/ReadAhead.h"
#include "host/package/Text.h"
#include "host/package/Trust.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <vector>

namespace package {

namespace {

constexpr std::uint64_t kLongestSignature = 2048; // bytes, of a 16384-bit key

FileDescriptor namelessFile(int folder) {
    FileDescriptor file(openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file.isOpen()) {
        return file;
    }
    // Not every file system supports that; no one else can enter the folder, so this is equivalent.
    constexpr char kName[] = "package";
    unlinkat(folder, kName, 0);
    file = FileDescriptor(openat(folder, kName, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.isOpen() || unlinkat(folder, kName, 0) != 0) {
        throw systemFailure("the package cannot be copied to the target");
    }
    return file;
}

// Which checksum an entry must have: any or none, or one that detects tampering.
enum class Checksums { Any, Strong };

// Compares the checksums of a table's entries, in the order of their places, with the file's bytes from its
// beginning.
class EntryCheck {
  public:
    EntryCheck(const Table& table, std::uint64_t heap, Checksums wanted) : heap_(heap) {
        for (const Entry& entry : table.entries) {
            if (!entry.data || entry.data->stored.length == 0) {
                continue;
            }
            const std::optional<Checksum>& checksum = entry.data->storedChecksum;
            if (wanted == Checksums::Strong && (!checksum || !isStrong(checksum->kind))) {
                throw Failure("the package has an entry without a strong checksum: " + inQuotes(entry.path),
                              FailureKind::Signature);
            }
            if (checksum) {
                parts_.push_back({&entry.path, &entry.data->stored, &*checksum});
            }
        }
        std::sort(parts_.begin(), parts_.end(), [](const Part& a, const Part& b) {
            return a.stored->offset > b.stored->offset; // the last is the next
        });
    }

    void add(std::string_view bytes) {
        while (!bytes.empty() && !parts_.empty()) {
            const Extent& stored = *parts_.back().stored;
            const std::uint64_t start = heap_ + stored.offset;
            const std::uint64_t next = at_ < start ? start : start + stored.length; // where something changes
            const std::string_view part = bytes.substr(0, next - at_);
            bytes.remove_prefix(part.size());
            if (at_ >= start) {
                digest(part);
            }
            at_ += part.size();
            if (at_ == start + stored.length) {
                finishPart();
            }
        }
        at_ += bytes.size();
    }

  private:
    struct Part {
        const std::string* path;
        const Extent* stored;
        const Checksum* checksum;
    };

    void digest(std::string_view bytes) {
        if (!digest_) {
            digest_.emplace(parts_.back().checksum->kind);
        }
        digest_->update(bytes.data(), bytes.size());
    }

    void finishPart() {
        const Part& part = parts_.back();
        if (!digest_ || digest_->finish() != part.checksum->bytes) {
            throw Failure("the package is damaged: " + inQuotes(*part.path) + " does not match its checksum");
        }
        digest_.reset();
        parts_.pop_back();
    }

    std::uint64_t heap_;
    std::uint64_t at_ = 0;
    std::vector<Part> parts_;
    std::optional<Digest> digest_;
};

} // namespace

OpenedFile::OpenedFile(FileDescriptor file) : descriptor(std::move(file)) {
    if (fstat(descriptor.get(), &status) != 0) {
        throw systemFailure("the package cannot be read");
    }
}

Package::Package(OpenedFile file) : Package(std::move(file), nullptr) {}

Package::Package(OpenedFile file, const TrustedCertificates& trusted) : Package(std::move(file), &trusted) {}

Package::Package(OpenedFile file, const TrustedCertificates* trusted) : file_(std::move(file.descriptor)) {
    if (!S_ISREG(file.status.st_mode)) {
        throw Failure("the package is not a regular file");
    }
    size_ = static_cast<std::uint64_t>(file.status.st_size);
    if (size_ < kHeaderSize) {
        throw Failure("not a package: it is too short");
    }
    front_ = bytesAt(0, std::min<std::uint64_t>(size_, kLongestHeader));
    const Header header = parseHeader(front_);
    front_.resize(header.size);
    if (heap() + header.tableLength > size_) {
        throw Failure("not a package, or a damaged one: it breaks off in its table");
    }
    const std::string packed = bytesAt(header.size, header.tableLength);
    front_ += packed;
    Digest digest(header.digest);
    digest.update(packed.data(), packed.size());
    const std::string tableDigest = digest.finish();
    const std::string xml = inflated(packed, header.tableUnpacked, "the package's table");
    const Seal seal = parseSeal(xml);
    if (seal.digestKind != header.digest) {
        throw Failure("the package's header and table differ about the kind of its digest");
    }
    if (seal.digest.length != tableDigest.size() || heapBytes(seal.digest) != tableDigest) {
        throw Failure("the package's table does not match its digest");
    }
    if (trusted != nullptr) {
        verifySeal(seal, tableDigest, *trusted);
    }
    table_ = parseTable(xml);
    if (!accountsForAll(table_, size_ - heap()) && isSignatureDemanded_) {
        throw Failure("the package has bytes that its table does not account for", FailureKind::Signature);
    }
}

void Package::verifySeal(const Seal& seal, const std::string& tableDigest,
                         const TrustedCertificates& trusted) {
    isSignatureDemanded_ = trusted.demandsSignature();
    if (!seal.signature) {
        if (isSignatureDemanded_) {
            throw Failure("the package is not signed", FailureKind::Signature);
        }
        return;
    }
    const Extent& place = seal.signature->place;
    if (place.length > kLongestSignature) {
        throw Failure("the package's signature is too long", FailureKind::Signature);
    }
    signer_ = verifySignature({seal.digestKind, tableDigest, heapBytes(place), seal.signature->certificates},
                              trusted);
}

void Package::makePrivate(int folder, std::uint64_t room, const std::function<void()>& onPiece) {
    if (size_ > room) {
        throw Failure("not enough free space on the target", FailureKind::Space);
    }
    FileDescriptor copy = namelessFile(folder);
    readThrough(copy.get(), onPiece);
    if (pwrite(copy.get(), front_.data(), front_.size(), 0) != static_cast<ssize_t>(front_.size())) {
        throw systemFailure("the package cannot be copied to the target");
    }
    file_ = std::move(copy);
}

std::string Package::bytesAt(std::uint64_t offset, std::uint64_t length) const {
    std::string bytes(length, '\0');
    for (std::size_t got = 0; got < bytes.size();) {
        const ssize_t more =
            pread(file_.get(), bytes.data() + got, bytes.size() - got, static_cast<off_t>(offset + got));
        if (more < 0) {
            throw systemFailure("the package cannot be read");
        }
        if (more == 0) {
            throw Failure("the package is damaged: it breaks off before its end");
        }
        got += static_cast<std::size_t>(more);
    }
    return bytes;
}

std::string Package::heapBytes(const Extent& extent) const {
    if (extent.length > kLongestSignature || extent.offset + extent.length > size_ - heap()) {
        throw Failure("the package is damaged: it breaks off before its end");
    }
    return bytesAt(heap() + extent.offset, extent.length);
}

void Package::verifyEntries() const {
    readThrough(-1, [] {});
}

void Package::readThrough(int copy, const std::function<void()>& onPiece) const {
    EntryCheck check(table_, heap(), isSignatureDemanded_ ? Checksums::Strong : Checksums::Any);
    std::uint64_t at = 0;
    // Reading and copying take turns in one thread, and the digests are computed in the other.
    ReadAhead pieces([&, this](char* to, std::size_t most) -> std::size_t {
        if (at == size_) {
            return 0;
        }
        const ssize_t got =
            pread(file_.get(), to, std::min<std::uint64_t>(most, size_ - at), static_cast<off_t>(at));
        if (got <= 0) {
            throw got < 0 ? systemFailure("the package cannot be read")
                          : Failure("the package is damaged: it breaks off before its end");
        }
        const auto size = static_cast<std::size_t>(got);
        if (copy >= 0 && !writeAll(copy, {to, size})) {
            throw systemFailure("the package cannot be copied to the target");
        }
        at += size;
        return size;
    });
    for (std::string_view piece = pieces.next(); !piece.empty(); piece = pieces.next()) {
        check.add(piece);
        onPiece();
    }
}

const Entry* Package::find(std::string_view path) const {
    for (const Entry& entry : table_.entries) {
        if (entry.path == path && !entry.isFolder) {
            return &entry;
        }
    }
    return nullptr;
}

std::unique_ptr<EntryReader> Package::open(const Entry& entry) const {
    if (!entry.data) {
        throw Failure("the package is damaged: it has an empty " + inQuotes(entry.path));
    }
    EntryData data = *entry.data;
    if (data.encoding == kPlainEncoding && data.decodedChecksum == data.storedChecksum) {
        data.decodedChecksum.reset(); // of the same bytes: verifyEntries compares it
    }
    return std::make_unique<EntryReader>(file_.get(), heap() + data.stored.offset, data);
}

std::unique_ptr<EntryReader> Package::openAsStored(const Entry& entry) const {
    if (!entry.data) {
        throw Failure("the package is damaged: it has an empty " + inQuotes(entry.path));
    }
    const EntryData& data = *entry.data;
    return std::make_unique<EntryReader>(
        file_.get(), heap() + data.stored.offset,
        EntryData{data.stored, data.stored.length, kPlainEncoding, {}, data.storedChecksum});
}

std::string Package::text(const Entry& entry, std::size_t most) const {
    std::string text;
    const std::unique_ptr<EntryReader> reader = open(entry);
    for (std::string_view block = reader->next(); !block.empty(); block = reader->next()) {
        if (text.size() + block.size() > most) {
            throw Failure(entry.path + " is too large");
        }
        text.append(block);
    }
    return text;
}

} // namespace package
