#include "host/package/Payload.h"

#include "host/package/Archive.h"
#include "host/package/Digest.h"
#include "host/package/EntryReader.h"
#include "host/package/Failure.h"
#include "host/package/ReadAhead.h"
#include "host/package/Text.h"

#include <archive_entry.h>
#include <sys/stat.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <unordered_map>

namespace package {

namespace {

// These limit the memory that a package takes, here and while it is unpacked and swapped in.
constexpr std::size_t kMostEntries = 100'000;
constexpr std::size_t kMostFolders = 20'000;
constexpr std::size_t kMostNameBytes = 8 << 20;

// Lets libarchive read what another thread unpacks, whose exceptions must not pass through it.
class Stream {
  public:
    explicit Stream(EntryReader& reader)
        : unpacked_(reader), ahead_([this](char* to, std::size_t size) { return unpacked_.read(to, size); }) {
    }

    static la_ssize_t read(archive* payload, void* self, const void** bytes) {
        auto& stream = *static_cast<Stream*>(self);
        try {
            const std::string_view block = stream.ahead_.next();
            *bytes = block.data();
            return static_cast<la_ssize_t>(block.size());
        } catch (const std::exception& problem) {
            stream.cause_ = problem.what();
            archive_set_error(payload, EILSEQ, "%s", problem.what());
            return -1;
        }
    }

    [[noreturn]] void fail(archive* payload) const {
        if (!cause_.empty()) {
            throw Failure(cause_);
        }
        const char* cause = archive_error_string(payload); // none if the archive just ends
        throw Failure(std::string("the package's payload is damaged: ") +
                      (cause != nullptr ? cause : "it breaks off"));
    }

    // What follows the archive's end counts for the checksum, too.
    void drain() {
        while (!ahead_.next().empty()) {
        }
    }

  private:
    GzipReader unpacked_;
    ReadAhead ahead_;
    std::string cause_;
};

// The rules for every entry, whatever is done with it.
class EntryRules {
  public:
    PayloadEntry check(archive_entry* entry) {
        const char* name = archive_entry_pathname(entry);
        PayloadEntry checked{relativePath(name != nullptr ? name : ""), archive_entry_filetype(entry), entry};
        const mode_t type = checked.type;
        // Refused at once: libarchive's search for the other names takes longer with each.
        if (archive_entry_hardlink(entry) != nullptr || (type != S_IFDIR && archive_entry_nlink(entry) > 1)) {
            throw Failure("the package has a hard link, use a copy or a symbolic link instead: " +
                          inQuotes(checked.path));
        }
        if (type != S_IFREG && type != S_IFDIR && type != S_IFLNK) {
            throw Failure("the package has a device or another special file: " + inQuotes(checked.path));
        }
        if (type != S_IFLNK && (archive_entry_perm(entry) & (S_ISUID | S_ISGID)) != 0) {
            throw Failure("the package has a set-id file, set such modes in a postinstall script instead: " +
                          inQuotes(checked.path));
        }
        if (checked.path.empty()) {
            if (type != S_IFDIR) {
                throw Failure("the package's top entry is not a folder");
            }
            return checked;
        }
        if (type == S_IFLNK) {
            const char* to = archive_entry_symlink(entry);
            if (to == nullptr || *to == '\0' || std::strlen(to) >= PATH_MAX) {
                throw Failure("the package has a link that leads nowhere: " + inQuotes(checked.path));
            }
        }
        addParents(checked.path);
        add(checked.path, type == S_IFDIR ? Kind::Folder : Kind::Other);
        return checked;
    }

  private:
    enum class Kind : std::uint8_t { ImpliedFolder, Folder, Other };
    // Enough of a path's SHA-256 digest to identify it, in far less memory than the path takes.
    using Key = std::array<std::uint64_t, 2>;
    struct KeyHash {
        std::size_t operator()(const Key& key) const noexcept { return key[0]; }
    };

    static Key keyOf(std::string_view path) {
        Digest digest(DigestKind::Sha256);
        digest.update(path.data(), path.size());
        Key key{};
        std::memcpy(key.data(), digest.finish().data(), sizeof key);
        return key;
    }

    void addParents(const std::string& path) {
        for (std::size_t slash = path.rfind('/'); slash != std::string::npos && slash > 0;
             slash = path.rfind('/', slash - 1)) {
            const auto [parent, isNew] = kinds_.emplace(keyOf(path.substr(0, slash)), Kind::ImpliedFolder);
            if (parent->second == Kind::Other) {
                throw Failure("the package has a path through a link or file of its own: " + inQuotes(path));
            }
            if (!isNew) {
                return; // so are its parents
            }
            count(slash, true);
        }
    }

    void add(const std::string& path, Kind kind) {
        const auto [place, isNew] = kinds_.emplace(keyOf(path), kind);
        if (isNew) {
            count(path.size(), kind == Kind::Folder);
        } else if (kind == Kind::Folder && place->second == Kind::ImpliedFolder) {
            place->second = kind;
        } else {
            throw Failure("the package has two entries of one name: " + inQuotes(path));
        }
    }

    void count(std::size_t nameSize, bool isFolder) {
        nameBytes_ += nameSize;
        folders_ += isFolder ? 1 : 0;
        if (kinds_.size() > kMostEntries || folders_ > kMostFolders || nameBytes_ > kMostNameBytes) {
            throw Failure("the package has too many entries");
        }
    }

    std::unordered_map<Key, Kind, KeyHash> kinds_;
    std::size_t nameBytes_ = 0;
    std::size_t folders_ = 0;
};

ArchiveReader openPayload(Stream& stream) {
    ArchiveReader payload(archive_read_new());
    if (!payload || archive_read_support_format_cpio(payload.get()) != ARCHIVE_OK) {
        throw Failure("no support for cpio on this machine");
    }
    if (archive_read_open(payload.get(), &stream, nullptr, Stream::read, nullptr) != ARCHIVE_OK) {
        stream.fail(payload.get());
    }
    return payload;
}

} // namespace

void readPayload(EntryReader& reader, PayloadSink& sink) {
    Stream stream(reader);
    const ArchiveReader payload = openPayload(stream);
    EntryRules rules;
    for (;;) {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(payload.get(), &entry);
        if (result == ARCHIVE_EOF) {
            break;
        }
        if (result != ARCHIVE_OK) {
            stream.fail(payload.get());
        }
        // libarchive ignores the checksums of this variant, so a damaged file would pass.
        if (archive_format(payload.get()) == ARCHIVE_FORMAT_CPIO_SVR4_CRC) {
            throw Failure("the package's payload is of the cpio variant \"crc\", use odc or newc instead");
        }
        const PayloadEntry checked = rules.check(entry);
        if (checked.path.empty()) {
            continue;
        }
        sink.begin(checked);
        for (;;) {
            const void* bytes = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int got = archive_read_data_block(payload.get(), &bytes, &size, &offset);
            if (got == ARCHIVE_EOF) {
                break;
            }
            if (got != ARCHIVE_OK) {
                stream.fail(payload.get());
            }
            sink.data(bytes, size, offset);
        }
        sink.end();
    }
    stream.drain();
}

} // namespace package
