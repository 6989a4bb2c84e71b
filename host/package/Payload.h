#pragma once

#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>

struct archive_entry;

namespace package {

class EntryReader;

/// One file, folder or symbolic link of a payload. Its path is relative, without ".."; its mode has no set-id
/// bits.
struct PayloadEntry {
    std::string path;     ///< never empty: the payload's own top folder is not passed on
    mode_t type;          ///< S_IFREG, S_IFDIR or S_IFLNK
    archive_entry* entry; ///< everything else; valid during the call, and may be changed
};

/// Receives the entries of a payload in their order: begin, then data any number of times for a regular file,
/// then end. Each call may throw Failure, which ends the reading.
class PayloadSink {
  public:
    PayloadSink() = default;
    PayloadSink(const PayloadSink&) = delete;
    PayloadSink& operator=(const PayloadSink&) = delete;
    virtual ~PayloadSink() = default;

    virtual void begin(const PayloadEntry& entry) = 0;
    virtual void data(const void* bytes, std::size_t size, std::int64_t offset) = 0;
    virtual void end() = 0;
};

/// Reads a compressed cpio archive as a stream. Throws Failure when it is damaged, holds anything but files,
/// folders and symbolic links, has too many entries, or when a path leads out of the payload, goes through
/// one of its links or files, occurs twice, or is longer than a file system takes.
void readPayload(EntryReader& reader, PayloadSink& sink);

} // namespace package
