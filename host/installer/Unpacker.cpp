#include "installer/Unpacker.h"

#include "installer/Failure.h"
#include "installer/Text.h"

#include <archive_entry.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

namespace installer {

Unpacker::Unpacker(const std::string& target, std::string location,
                   std::function<void(std::uint64_t)> onBytes)
    : disk_(archive_write_disk_new()), location_(std::move(location)), onBytes_(std::move(onBytes)) {
    if (!disk_)
        throw Failure("out of memory");
    if (chdir(target.c_str()) != 0)
        throw Failure("the target cannot be entered: " + std::generic_category().message(errno));
    archive_write_disk_set_options(
        disk_.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                         ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
}

// libarchive replaces files and links by name and writes through no link, but it would put a folder where a
// link was, and restyle folders that others share.
void Unpacker::makeRoom(const std::string& path, bool isFolder) {
    for (std::size_t slash = path.find('/');; slash = path.find('/', slash + 1)) {
        const bool isLast = slash == std::string::npos;
        const std::string part = path.substr(0, slash);
        struct stat status {};
        if (lstat(part.c_str(), &status) != 0) {
            if (errno != ENOENT)
                throw Failure("the target cannot be examined at " + quoted(part) + ": " +
                              std::generic_category().message(errno));
            if (isLast)
                return;
            implied_.insert(part);
            continue;
        }
        if (!isLast || isFolder) {
            if (S_ISLNK(status.st_mode))
                throw Failure("the target has a symbolic link in place of a folder: " + quoted(part));
            if (!S_ISDIR(status.st_mode))
                throw Failure("the target has a file in place of a folder: " + quoted(part));
            skipped_ = isLast && implied_.count(part) == 0;
        } else if (S_ISDIR(status.st_mode)) {
            throw Failure("the target has a folder in place of a file: " + quoted(part));
        }
        if (isLast)
            return;
    }
}

void Unpacker::expect(int result, const char* doing) {
    if (result != ARCHIVE_OK)
        throw Failure(std::string("cannot ") + doing + " " + quoted(current_) + ": " +
                      lastError(disk_.get()));
}

void Unpacker::begin(const PayloadEntry& entry) {
    current_ = location_.empty() ? entry.path : location_ + "/" + entry.path;
    skipped_ = false;
    makeRoom(current_, entry.type == S_IFDIR);
    if (skipped_)
        return;
    archive_entry_copy_pathname(entry.entry, current_.c_str());
    expect(archive_write_header(disk_.get(), entry.entry), "create");
}

void Unpacker::data(const void* bytes, std::size_t size, std::int64_t offset) {
    expect(static_cast<int>(archive_write_data_block(disk_.get(), bytes, size, offset)), "write");
    onBytes_(size);
}

void Unpacker::end() {
    if (!skipped_)
        expect(archive_write_finish_entry(disk_.get()), "complete");
}

void Unpacker::finish() {
    current_ = location_;
    expect(archive_write_close(disk_.get()), "complete");
}

} // namespace installer
