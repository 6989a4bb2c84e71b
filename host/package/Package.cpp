#include "package/Package.h"

#include "package/Failure.h"
#include "package/Text.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

namespace package {

namespace {

constexpr std::size_t kBlock = 1 << 20;
constexpr std::uint64_t kLongestSignature = 2048; // of a 16384-bit key

FileDescriptor namelessFile(int folder) {
    FileDescriptor file(openat(folder, ".", O_TMPFILE | O_RDWR | O_CLOEXEC, 0600));
    if (file.isOpen()) {
        return file;
    }
    // Not every file system can make one; the folder is ours alone, so this comes to the same.
    constexpr char kName[] = "package";
    unlinkat(folder, kName, 0);
    file = FileDescriptor(openat(folder, kName, O_CREAT | O_EXCL | O_RDWR | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.isOpen() || unlinkat(folder, kName, 0) != 0) {
        throw systemFailure("the package cannot be copied to the target");
    }
    return file;
}

// Copies what is left of `from`, by reading and writing.
void copyRest(int from, int to, std::uint64_t left) {
    std::vector<char> block(kBlock);
    for (;;) {
        const ssize_t got = read(from, block.data(), block.size());
        if (got == 0) {
            return;
        }
        if (got < 0) {
            throw systemFailure("the package cannot be read");
        }
        if (static_cast<std::uint64_t>(got) > left) {
            throw Failure("not enough free space on the target");
        }
        left -= static_cast<std::uint64_t>(got);
        for (ssize_t written = 0; written < got;) {
            const ssize_t more = write(to, block.data() + written, static_cast<std::size_t>(got - written));
            if (more < 0) {
                throw systemFailure("the package cannot be copied to the target");
            }
            written += more;
        }
    }
}

} // namespace

FileDescriptor takeCopy(const std::string& path, int folder, std::uint64_t room) {
    const FileDescriptor original(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    if (!original.isOpen()) {
        throw systemFailure("the package cannot be opened");
    }
    struct stat status{};
    if (fstat(original.get(), &status) != 0 || !S_ISREG(status.st_mode)) {
        throw Failure("the package is not a regular file");
    }
    if (static_cast<std::uint64_t>(status.st_size) > room) {
        throw Failure("not enough free space on the target");
    }
    FileDescriptor copy = namelessFile(folder);
    // The kernel copies, and on some file systems shares, what was there to begin with; the rest of a file
    // that is growing meanwhile, and everything where the kernel can't, goes by hand.
    std::uint64_t left = room;
    for (off_t wanted = status.st_size; wanted > 0;) {
        const ssize_t got = copy_file_range(original.get(), nullptr, copy.get(), nullptr,
                                            static_cast<std::size_t>(wanted), 0);
        if (got <= 0) {
            break;
        }
        wanted -= got;
        left -= static_cast<std::uint64_t>(got);
    }
    copyRest(original.get(), copy.get(), left);
    return copy;
}

Package::Package(FileDescriptor file) : file_(std::move(file)) {
    struct stat status{};
    if (fstat(file_.get(), &status) != 0) {
        throw systemFailure("the package cannot be read");
    }
    size_ = static_cast<std::uint64_t>(status.st_size);
    if (size_ < kHeaderSize) {
        throw Failure("not a package: it is too short");
    }
    const Header header = parseHeader(bytesAt(0, kHeaderSize));
    heap_ = header.size + header.tableLength;
    if (heap_ > size_) {
        throw Failure("not a package, or a damaged one: it breaks off in its table");
    }
    const std::string packed = bytesAt(header.size, header.tableLength);
    Digest digest(header.digest);
    digest.update(packed.data(), packed.size());
    tableDigest_ = digest.finish();
    // The place of the digest is known from the table alone, which is therefore read before it is compared.
    table_ = parseTable(inflated(packed, header.tableUnpacked, "the package's table"));
    if (table_.digestKind != header.digest) {
        throw Failure("the package's header and table differ about the kind of its digest");
    }
    hasStrayBytes_ = !accountsForAll(table_, size_ - heap_);
    if (table_.digest.length != tableDigest_.size() ||
        bytesAt(heap_ + table_.digest.offset, table_.digest.length) != tableDigest_) {
        throw Failure("the package's table does not match its digest");
    }
}

std::string Package::bytesAt(std::uint64_t offset, std::uint64_t length) const {
    std::string bytes(length, '\0');
    for (std::size_t got = 0; got < bytes.size();) {
        const ssize_t more =
            pread(file_.get(), bytes.data() + got, bytes.size() - got, static_cast<off_t>(offset + got));
        if (more <= 0) {
            throw systemFailure("the package cannot be read");
        }
        got += static_cast<std::size_t>(more);
    }
    return bytes;
}

std::string Package::signatureBytes() const {
    const Extent place = table_.signature ? table_.signature->place : Extent();
    if (place.length > kLongestSignature) {
        throw Failure("the package's signature is too long");
    }
    return bytesAt(heap_ + place.offset, place.length);
}

void Package::verifyEntries(bool mustBeStrong) const {
    if (mustBeStrong && hasStrayBytes_) {
        throw Failure("the package has bytes that its table does not account for");
    }
    for (const Entry& entry : table_.entries) {
        if (!entry.data || entry.data->stored.length == 0) {
            continue;
        }
        const std::optional<Checksum>& expected = entry.data->storedChecksum;
        if (mustBeStrong && (!expected || !isStrong(expected->kind))) {
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
    return std::make_unique<EntryReader>(file_.get(), heap_ + entry.data->stored.offset, *entry.data);
}

std::unique_ptr<EntryReader> Package::openAsStored(const Entry& entry) const {
    const Data& data = entry.data.value();
    return std::make_unique<EntryReader>(
        file_.get(), heap_ + data.stored.offset,
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
