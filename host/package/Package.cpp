#include "package/Package.h"

#include "base/ReadWrite.h"
#include "package/Failure.h"
#include "package/Text.h"
#include "package/Trust.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <vector>

namespace package {

namespace {

constexpr std::size_t kBlock = 1 << 18;
constexpr std::uint64_t kPiece = 4 << 20;
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

// Copies what lies at the two files' positions, `most` bytes at most, and returns how many. The kernel copies
// or shares them; where it cannot, they go through `buffer`.
std::size_t copyPiece(int from, int to, std::size_t most, std::vector<char>& buffer) {
    ssize_t got = buffer.empty() ? copy_file_range(from, nullptr, to, nullptr, most, 0) : 0;
    if (got > 0) {
        return static_cast<std::size_t>(got);
    }
    buffer.resize(kBlock);
    got = read(from, buffer.data(), std::min(most, buffer.size()));
    if (got <= 0) {
        throw got < 0 ? systemFailure("the package cannot be read")
                      : Failure("the package is damaged: it breaks off before its end");
    }
    if (!writeAll(to, {buffer.data(), static_cast<std::size_t>(got)})) {
        throw systemFailure("the package cannot be copied to the target");
    }
    return static_cast<std::size_t>(got);
}

} // namespace

Package::Package(FileDescriptor file) : Package(std::move(file), nullptr) {}

Package::Package(FileDescriptor file, const TrustedCertificates& trusted)
    : Package(std::move(file), &trusted) {}

Package::Package(FileDescriptor file, const TrustedCertificates* trusted) : file_(std::move(file)) {
    struct stat status{};
    if (fstat(file_.get(), &status) != 0) {
        throw systemFailure("the package cannot be read");
    }
    if (!S_ISREG(status.st_mode)) {
        throw Failure("the package is not a regular file");
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    if (size_ < kHeaderSize) {
        throw Failure("not a package: it is too short");
    }
    front_ = bytesAt(0, kHeaderSize);
    const Header header = parseHeader(front_);
    if (heap() + header.tableLength > size_) {
        throw Failure("not a package, or a damaged one: it breaks off in its table");
    }
    const std::string packed = bytesAt(kHeaderSize, header.tableLength);
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
    if (trusted) {
        verifySeal(seal, tableDigest, *trusted);
    }
    table_ = parseTable(xml);
    if (!accountsForAll(table_, size_ - heap()) && isSignatureDemanded_) {
        throw Failure("the package has bytes that its table does not account for");
    }
}

void Package::verifySeal(const Seal& seal, const std::string& tableDigest,
                         const TrustedCertificates& trusted) {
    isSignatureDemanded_ = trusted.demandsSignature();
    if (!seal.signature) {
        if (isSignatureDemanded_) {
            throw Failure("the package is not signed");
        }
        return;
    }
    const Extent& place = seal.signature->place;
    if (place.length > kLongestSignature) {
        throw Failure("the package's signature is too long");
    }
    signer_ = verifySignature({seal.digestKind, tableDigest, heapBytes(place), seal.signature->certificates},
                              trusted);
}

void Package::makePrivate(int folder, std::uint64_t room, const std::function<void()>& onPiece) {
    if (size_ > room) {
        throw Failure("not enough free space on the target");
    }
    FileDescriptor copy = namelessFile(folder);
    if (lseek(file_.get(), 0, SEEK_SET) < 0) {
        throw systemFailure("the package cannot be copied to the target");
    }
    std::vector<char> buffer;
    for (std::uint64_t at = 0; at < size_;) {
        onPiece();
        const auto most = static_cast<std::size_t>(std::min(size_ - at, kPiece));
        at += copyPiece(file_.get(), copy.get(), most, buffer);
    }
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
    for (const Entry& entry : table_.entries) {
        if (!entry.data || entry.data->stored.length == 0) {
            continue;
        }
        const std::optional<Checksum>& expected = entry.data->storedChecksum;
        if (isSignatureDemanded_ && (!expected || !isStrong(expected->kind))) {
            throw Failure("the package has an entry without a strong checksum: " + inQuotes(entry.path));
        }
        if (!expected) {
            continue;
        }
        const std::unique_ptr<EntryReader> reader = openAsStored(entry);
        try {
            while (!reader->next().empty()) {
            }
        } catch (const Failure&) {
            throw Failure("the package is damaged: " + inQuotes(entry.path) + " does not match its checksum");
        }
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
    Data data = *entry.data;
    if (data.encoding == kPlainEncoding && data.decodedChecksum == data.storedChecksum) {
        data.decodedChecksum.reset(); // of the same bytes: verifyEntries compares it
    }
    return std::make_unique<EntryReader>(file_.get(), heap() + data.stored.offset, data);
}

std::unique_ptr<EntryReader> Package::openAsStored(const Entry& entry) const {
    if (!entry.data) {
        throw Failure("the package is damaged: it has an empty " + inQuotes(entry.path));
    }
    const Data& data = *entry.data;
    return std::make_unique<EntryReader>(
        file_.get(), heap() + data.stored.offset,
        Data{data.stored, data.stored.length, kPlainEncoding, {}, data.storedChecksum});
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
