#include "host/installer/Unpacker.h"

#include "base/FileDescriptor.h"
#include "host/package/Contents.h"
#include "host/package/Failure.h"
#include "host/package/Text.h"

#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <new>
#include <utility>

namespace installer {

using namespace package;

namespace {

constexpr mode_t kAllowedMode = 0755;
// Smaller files are left to the kernel, which writes many at once.
constexpr std::uint64_t kLargeFile = 128 << 10;
constexpr std::uint64_t kLargePiece = 8 << 20;

} // namespace

Unpacker::Unpacker(int folder, std::string location, Allowance allowance, std::function<void()> onProgress)
    : disk_(archive_write_disk_new()), location_(std::move(location)), allowance_(allowance),
      onProgress_(std::move(onProgress)) {
    if (!disk_) {
        throw std::bad_alloc();
    }
    if (fchdir(folder) != 0) {
        throw systemFailure("the target cannot be entered");
    }
    archive_write_disk_set_options(
        disk_.get(), ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                         ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS);
}

void Unpacker::checkAllowance() const {
    if (usage_.bytes() > allowance_.available) {
        throw Failure("not enough free space on the target", FailureKind::Space);
    }
    if (usage_.contents() > allowance_.stated) {
        throw Failure("the package's payload is far larger than it states");
    }
}

// Lets the disk write while the next bytes are decompressed, rather than during the sync at the end, which
// reports what cannot be written.
void Unpacker::startWriting(std::uint64_t least) {
    if (unwritten_ < least) {
        return;
    }
    unwritten_ = 0;
    const FileDescriptor file(open(current_.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
    sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void Unpacker::require(int result, const char* doing) {
    if (result != ARCHIVE_OK) {
        throw Failure(std::string("cannot ") + doing + " " + inQuotes(current_) + ": " +
                          lastError(disk_.get()),
                      archive_errno(disk_.get()) == ENOSPC ? FailureKind::Space : FailureKind::System);
    }
}

void Unpacker::begin(const PayloadEntry& entry) {
    ++entries_;
    usage_.addEntry();
    checkAllowance();
    current_ = location_.empty() ? entry.path : location_ + "/" + entry.path;
    requireNotReserved(current_, S_ISDIR(entry.type));
    unwritten_ = 0;
    archive_entry_copy_pathname(entry.entry, current_.c_str());
    archive_entry_set_perm(entry.entry, archive_entry_perm(entry.entry) & kAllowedMode);
    require(archive_write_header(disk_.get(), entry.entry), "create");
}

void Unpacker::data(const void* bytes, std::size_t size, std::int64_t offset) {
    usage_.addData(size);
    checkAllowance();
    require(static_cast<int>(archive_write_data_block(disk_.get(), bytes, size, offset)), "write");
    unwritten_ += size;
    startWriting(kLargePiece);
    onProgress_();
}

void Unpacker::end() {
    require(archive_write_finish_entry(disk_.get()), "complete");
    startWriting(kLargeFile);
}

void Unpacker::finish() {
    current_ = location_;
    require(archive_write_close(disk_.get()), "complete");
}

} // namespace installer
