#include "installer/Unpacker.h"

#include "package/Failure.h"
#include "package/Text.h"

#include <archive_entry.h>
#include <unistd.h>

#include <limits>
#include <new>
#include <utility>

namespace installer {

using namespace package;

namespace {

constexpr std::uint64_t kBlock = 4096; // what the smallest file or folder takes

// A number that means "nobody in particular" in the system's calls.
la_int64_t ownerOrRoot(la_int64_t id) {
    return id >= 0 && id < std::numeric_limits<std::int32_t>::max() ? id : 0;
}

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
    int options = ARCHIVE_EXTRACT_PERM | ARCHIVE_EXTRACT_TIME | ARCHIVE_EXTRACT_SECURE_SYMLINKS |
                  ARCHIVE_EXTRACT_SECURE_NODOTDOT | ARCHIVE_EXTRACT_SECURE_NOABSOLUTEPATHS;
    if (geteuid() == 0) {
        options |= ARCHIVE_EXTRACT_OWNER;
    }
    archive_write_disk_set_options(disk_.get(), options);
}

void Unpacker::checkAllowance() const {
    if (entries_ * kBlock + bytes_ > allowance_.available) {
        throw Failure("not enough free space on the target");
    }
    if (bytes_ > allowance_.stated) {
        throw Failure("the package's payload is far larger than it states");
    }
}

void Unpacker::expect(int result, const char* doing) {
    if (result != ARCHIVE_OK) {
        throw Failure(std::string("cannot ") + doing + " " + inQuotes(current_) + ": " +
                      lastError(disk_.get()));
    }
}

void Unpacker::begin(const PayloadEntry& entry) {
    ++entries_;
    checkAllowance();
    current_ = location_.empty() ? entry.path : location_ + "/" + entry.path;
    archive_entry_copy_pathname(entry.entry, current_.c_str());
    // Numbers count: a user of the same name on this machine may be somebody else.
    archive_entry_set_uname(entry.entry, nullptr);
    archive_entry_set_gname(entry.entry, nullptr);
    archive_entry_set_uid(entry.entry, ownerOrRoot(archive_entry_uid(entry.entry)));
    archive_entry_set_gid(entry.entry, ownerOrRoot(archive_entry_gid(entry.entry)));
    expect(archive_write_header(disk_.get(), entry.entry), "create");
}

void Unpacker::data(const void* bytes, std::size_t size, std::int64_t offset) {
    bytes_ += size;
    checkAllowance();
    expect(static_cast<int>(archive_write_data_block(disk_.get(), bytes, size, offset)), "write");
    onProgress_();
}

void Unpacker::end() {
    expect(archive_write_finish_entry(disk_.get()), "complete");
}

void Unpacker::finish() {
    current_ = location_;
    expect(archive_write_close(disk_.get()), "complete");
}

} // namespace installer
