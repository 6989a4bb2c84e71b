#include "installer/Unpacker.h"

#include "base/FileDescriptor.h"
#include "package/Contents.h"
#include "package/Failure.h"
#include "package/Text.h"

#include <archive_entry.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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
        throw Failure("not enough free space on the target");
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
    (void)sync_file_range(file.get(), 0, 0, SYNC_FILE_RANGE_WRITE);
}

void Unpacker::expect(int result, const char* doing) {
    if (result != ARCHIVE_OK) {
        throw Failure(std::string("cannot ") + doing + " " + inQuotes(current_) + ": " +
                      lastError(disk_.get()));
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
    expect(archive_write_header(disk_.get(), entry.entry), "create");
}

void Unpacker::data(const void* bytes, std::size_t size, std::int64_t offset) {
    usage_.addData(size);
    checkAllowance();
    expect(static_cast<int>(archive_write_data_block(disk_.get(), bytes, size, offset)), "write");
    unwritten_ += size;
    startWriting(kLargePiece);
    onProgress_();
}

void Unpacker::end() {
    expect(archive_write_finish_entry(disk_.get()), "complete");
    startWriting(kLargeFile);
}

void Unpacker::finish() {
    current_ = location_;
    expect(archive_write_close(disk_.get()), "complete");
}

} // namespace installer
