#pragma once

#include "base/FileDescriptor.h"
#include "host/package/EntryReader.h"
#include "host/package/Table.h"

#include <sys/stat.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace package {

class TrustedCertificates;

/// An open file with its status, as seen by whoever opened it: a FUSE file system tells that to its user
/// only.
struct OpenedFile {
    FileDescriptor descriptor;
    struct stat status{};

    OpenedFile() = default;
    /// Throws Failure if the status cannot be read.
    OpenedFile(FileDescriptor file);
};

/// A flat package: a xar archive. Not thread-safe.
class Package {
  public:
    /// Reads the table, checking everything but its signature and the entries' contents. Throws Failure when
    /// the file is no regular one, or no archive whose table matches its digest.
    explicit Package(OpenedFile file);

    /// The same, but before anything of the table's entries is read, the signature is verified. Throws
    /// Failure also when that fails, or when a signature is demanded and there is none, or there are bytes
    /// that it does not cover.
    Package(OpenedFile file, const TrustedCertificates& trusted);

    /// Continues with a private copy: a file without a name, below `folder` and on its file system. Its table
    /// is the one that was verified, and whatever happens to the original from then on changes nothing.
    /// Reads every entry on the way, as verifyEntries does. Calls `onPiece` after each piece, since the
    /// original's file system may stop answering. Throws Failure also when the copy would be larger than
    /// `room` bytes.
    void makePrivate(int folder, std::uint64_t room, const std::function<void()>& onPiece);

    /// Gives up the private copy: nothing can be read from then on.
    void discardCopy() { file_.reset(); }

    /// Open for reading and writing; stays the package's.
    int file() const { return file_.get(); }

    /// The SHA-256 fingerprint of the signer's certificate in hexadecimal digits; empty if there is no
    /// signature, or it was not verified.
    const std::string& signer() const { return signer_; }

    const Table& table() const { return table_; }

    /// Reads every entry as stored and compares its checksum. Throws Failure if one does not match or,
    /// if a signature is demanded, has no checksum that detects tampering.
    void verifyEntries() const;

    /// The file of that path, or null. A folder of the name counts as none.
    const Entry* find(std::string_view path) const;

    /// A reader of the file's contents, whose checksum should have been compared before. The package must
    /// outlive it. Throws Failure when the file is empty.
    std::unique_ptr<EntryReader> open(const Entry& entry) const;

    /// The same for the bytes as they are stored, compared with their checksum if there is one.
    std::unique_ptr<EntryReader> openAsStored(const Entry& entry) const;

    /// The whole contents. Throws Failure when they are longer than `most`.
    std::string text(const Entry& entry, std::size_t most) const;

  private:
    Package(OpenedFile file, const TrustedCertificates* trusted);
    void verifySeal(const Seal& seal, const std::string& tableDigest, const TrustedCertificates& trusted);
    void readThrough(int copy, const std::function<void()>& onPiece) const;
    std::uint64_t heap() const { return front_.size(); } // where the heap begins
    std::string bytesAt(std::uint64_t offset, std::uint64_t length) const;
    std::string heapBytes(const Extent& extent) const;

    FileDescriptor file_;
    std::uint64_t size_ = 0;
    std::string front_; // header and table, as stored
    Table table_;
    bool isSignatureDemanded_ = false;
    std::string signer_;
};

} // namespace package
