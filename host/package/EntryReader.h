#pragma once

#include "host/package/Table.h"

#include <cstdint>
#include <memory>
#include <string_view>

namespace package {

/// Reads a part of a file and decodes it. Not thread-safe.
class EntryReader {
  public:
    /// `file` stays the caller's and must outlive the reader; `start` is where the part begins in it. Throws
    /// Failure when the encoding is unknown.
    EntryReader(int file, std::uint64_t start, const EntryData& data);
    EntryReader(const EntryReader&) = delete;
    EntryReader& operator=(const EntryReader&) = delete;
    ~EntryReader();

    /// The next decoded bytes, valid until the next call; empty at the end. Throws Failure when the part is
    /// damaged: in its encoding, its size, or its checksum, which is compared at the end.
    std::string_view next();

    /// How many of the stored bytes have been read. Any thread.
    std::uint64_t consumed() const;

    class Decoder; ///< decodes, without regard to size and checksum

  private:
    std::unique_ptr<Decoder> decoder_;
    EntryData data_;
    std::unique_ptr<Digest> digest_;
    std::uint64_t decoded_ = 0;
    bool ended_ = false;
};

/// Unpacks what another reader gives: gzip, or a cpio archive as it is. Not thread-safe.
class GzipReader {
  public:
    /// The other reader must outlive this one.
    explicit GzipReader(EntryReader& reader);
    GzipReader(const GzipReader&) = delete;
    GzipReader& operator=(const GzipReader&) = delete;
    ~GzipReader();

    /// Puts up to `most` bytes at `to` and returns how many; 0 at the end, when the other reader is at its
    /// own. Throws Failure when the contents are damaged, or begin like neither.
    std::size_t read(char* to, std::size_t most);

  private:
    class State;
    std::unique_ptr<State> state_;
};

/// All of a zlib stream that is known to be `size` bytes when unpacked. Throws Failure when it is not.
std::string inflated(std::string_view packed, std::size_t size, const std::string& what);

} // namespace package
