#include "installer/Package.h"

#include "installer/Archive.h"
#include "installer/Failure.h"
#include "installer/Payload.h"
#include "installer/Text.h"

#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>
#include <system_error>

namespace installer {

namespace {

constexpr std::size_t kReadSize = 65536;
constexpr std::size_t kLargestPackageInfo = 1048576;

ArchiveReader openXar(int file) {
    ArchiveReader xar(archive_read_new());
    if (!xar || archive_read_support_format_xar(xar.get()) != ARCHIVE_OK)
        throw Failure("no support for xar archives on this machine");
    if (lseek(file, 0, SEEK_SET) != 0 || archive_read_open_fd(xar.get(), file, kReadSize) != ARCHIVE_OK)
        throw Failure("not a package, or a damaged one: " + lastError(xar.get()));
    return xar;
}

// Reads the current entry to its end, which is where its checksum is compared.
std::string readEntry(archive* xar, std::size_t keepAtMost) {
    std::string text;
    for (;;) {
        const void* bytes = nullptr;
        std::size_t size = 0;
        la_int64_t offset = 0;
        const int result = archive_read_data_block(xar, &bytes, &size, &offset);
        if (result == ARCHIVE_EOF)
            return text;
        if (result != ARCHIVE_OK)
            throw Failure("the package is damaged: " + lastError(xar));
        if (keepAtMost > 0) {
            if (text.size() + size > keepAtMost)
                throw Failure("PackageInfo is too large");
            text.append(static_cast<const char*>(bytes), size);
        }
    }
}

} // namespace

Package::Package(const std::string& path) : file_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {
    if (file_ < 0)
        throw Failure("the package cannot be opened: " + std::generic_category().message(errno));
    struct stat status {};
    if (fstat(file_, &status) == 0 && S_ISREG(status.st_mode))
        return;
    close(file_);
    throw Failure("the package is not a regular file");
}

Package::~Package() {
    close(file_);
}

PackageInfo Package::read(PayloadSink& sink) const {
    const ArchiveReader xar = openXar(file_);
    std::optional<PackageInfo> info;
    bool hasPayload = false;
    for (;;) {
        archive_entry* entry = nullptr;
        const int result = archive_read_next_header(xar.get(), &entry);
        if (result == ARCHIVE_EOF)
            break;
        if (result != ARCHIVE_OK)
            throw Failure("not a package, or a damaged one: " + lastError(xar.get()));
        const char* rawName = archive_entry_pathname(entry);
        const std::string name = relativePath(rawName ? rawName : "");
        const bool isFile = archive_entry_filetype(entry) == AE_IFREG && !archive_entry_hardlink(entry);
        if (name == "Scripts")
            throw Failure("the package has install scripts, which are not supported");
        if (name == "PackageInfo" && isFile) {
            if (info)
                throw Failure("the package has two PackageInfo entries");
            info = parsePackageInfo(readEntry(xar.get(), kLargestPackageInfo));
            continue;
        }
        if (name == "Payload" && isFile) {
            if (hasPayload)
                throw Failure("the package has two Payload entries");
            hasPayload = true;
            readPayload(xar.get(), sink);
        }
        readEntry(xar.get(), 0);
    }
    if (!info)
        throw Failure("the package has no PackageInfo");
    if (!hasPayload)
        throw Failure("the package has no Payload");
    return *info;
}

} // namespace installer
