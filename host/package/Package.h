#pragma once

#include "package/EntryReader.h"
#include "package/FileDescriptor.h"
#include "package/Table.h"

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace package {

// Copies the file at `path` into a file without a name, below `folder` and on its file system, which nobody
// but us can reach: whatever happens to `path` from then on changes nothing. Throws Failure when it is not a
// regular file that can be read, or is larger than `room` bytes.
FileDescriptor takeCopy(const std::string& path, int folder, std::uint64_t room);

// A flat package: a xar archive. Opening one checks all that there is but the entries' contents. Not
// thread-safe.
class Package {
  public:
    // The file must not change any more. Throws Failure when it is not an archive whose table matches its
    // digest.
    explicit Package(FileDescriptor file);

    const Table& table() const { return table_; }
    const std::string& tableDigest() const { return tableDigest_; }
    std::uint64_t size() const { return size_; }

    // The bytes of the signature. Throws Failure when they are more than a signature takes.
    std::string signatureBytes() const;

    // Reads every entry as stored and compares its checksum. Throws Failure when one does not match or, with
    // `mustBeStrong`, has no checksum that withstands ill will, or there are bytes besides the entries.
    void verifyEntries(bool mustBeStrong) const;

    // The file of that path, or null. A folder of the name counts as none.
    const Entry* find(std::string_view path) const;

    // A reader of the file's contents. The package must outlive it. Throws Failure when the file is empty.
    std::unique_ptr<EntryReader> open(const Entry& entry) const;

    // The same for the bytes as they are stored, compared with their checksum if there is one.
    std::unique_ptr<EntryReader> openAsStored(const Entry& entry) const;

    // The whole contents. Throws Failure when they are longer than `most`.
    std::string text(const Entry& entry, std::size_t most) const;

  private:
    std::string bytesAt(std::uint64_t offset, std::uint64_t length) const;

    FileDescriptor file_;
    std::uint64_t size_ = 0;
    std::uint64_t heap_ = 0; // where the heap begins
    Table table_;
    bool hasStrayBytes_ = false;
    std::string tableDigest_;
};

} // namespace package
