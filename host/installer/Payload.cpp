#include "installer/Payload.h"

#include "installer/Archive.h"
#include "installer/Failure.h"
#include "installer/Text.h"

#include <archive_entry.h>
#include <sys/stat.h>

#include <unordered_map>

namespace installer {

namespace {

constexpr std::uint64_t kBlock = 4096;
constexpr std::size_t kMostEntries = 200'000; // bounds the memory that the names below take

la_ssize_t readOuter(archive* inner, void* outer, const void** bytes) {
    auto* package = static_cast<archive*>(outer);
    for (;;) {
        std::size_t size = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(package, bytes, &size, &offset);
        if (result == ARCHIVE_EOF)
            return 0;
        if (result != ARCHIVE_OK) {
            archive_set_error(inner, archive_errno(package), "%s", archive_error_string(package));
            return -1;
        }
        if (size > 0) // an empty block would read as the end
            return static_cast<la_ssize_t>(size);
    }
}

// The rules that every entry obeys, whatever is done with it.
class EntryRules {
  public:
    PayloadEntry check(archive_entry* entry) {
        const char* name = archive_entry_pathname(entry);
        PayloadEntry checked{relativePath(name ? name : ""), archive_entry_filetype(entry), entry};
        const mode_t type = checked.type;
        if (archive_entry_hardlink(entry))
            throw Failure("the package has a hard link: " + quoted(checked.path));
        if (type != S_IFREG && type != S_IFDIR && type != S_IFLNK)
            throw Failure("the package has a device or another special file: " + quoted(checked.path));
        if (type != S_IFLNK && (archive_entry_perm(entry) & (S_ISUID | S_ISGID)) != 0)
            throw Failure("the package has a set-id file: " + quoted(checked.path));
        if (checked.path.empty()) {
            if (type != S_IFDIR)
                throw Failure("the package's top entry is not a folder");
            return checked;
        }
        for (std::size_t slash = checked.path.find('/'); slash != std::string::npos;
             slash = checked.path.find('/', slash + 1)) {
            const auto parent = types_.find(checked.path.substr(0, slash));
            if (parent != types_.end() && parent->second != S_IFDIR)
                throw Failure("the package has a path through a link or file of its own: " +
                              quoted(checked.path));
        }
        if (!types_.emplace(checked.path, type).second)
            throw Failure("the package has two entries of one name: " + quoted(checked.path));
        if (types_.size() > kMostEntries)
            throw Failure("the package has too many entries");
        return checked;
    }

  private:
    std::unordered_map<std::string, mode_t> types_;
};

ArchiveReader openPayload(archive* package) {
    ArchiveReader payload(archive_read_new());
    if (!payload || archive_read_support_filter_gzip(payload.get()) != ARCHIVE_OK ||
        archive_read_support_format_cpio(payload.get()) != ARCHIVE_OK)
        throw Failure("no support for gzip or cpio on this machine");
    if (archive_read_open(payload.get(), package, nullptr, readOuter, nullptr) != ARCHIVE_OK)
        throw Failure("the package's payload is damaged: " + lastError(payload.get()));
    return payload;
}

} // namespace

void PayloadTally::begin(const PayloadEntry&) {
    ++entries_;
    if (entries_ * kBlock + bytes_ > available_)
        throw Failure("not enough free space on the target");
}

void PayloadTally::data(const void*, std::size_t size, std::int64_t) {
    bytes_ += size;
    if (entries_ * kBlock + bytes_ > available_)
        throw Failure("not enough free space on the target");
}

void readPayload(archive* package, PayloadSink& sink) {
    const ArchiveReader payload = openPayload(package);
    EntryRules rules;
    for (;;) {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(payload.get(), &entry);
        if (result == ARCHIVE_EOF)
            return;
        if (result != ARCHIVE_OK)
            throw Failure("the package's payload is damaged: " + lastError(payload.get()));
        // The checksums of this variant are read over, so a damaged file would pass.
        if (archive_format(payload.get()) == ARCHIVE_FORMAT_CPIO_SVR4_CRC)
            throw Failure("the package's payload is of a cpio variant that is not supported");
        const PayloadEntry checked = rules.check(entry);
        if (checked.path.empty())
            continue;
        sink.begin(checked);
        for (;;) {
            const void* bytes = nullptr;
            std::size_t size = 0;
            la_int64_t offset = 0;
            const int got = archive_read_data_block(payload.get(), &bytes, &size, &offset);
            if (got == ARCHIVE_EOF)
                break;
            if (got != ARCHIVE_OK)
                throw Failure("the package's payload is damaged: " + lastError(payload.get()));
            sink.data(bytes, size, offset);
        }
        sink.end();
    }
}

} // namespace installer
