#pragma once

#include "host/package/Archive.h"
#include "host/package/Payload.h"

#include <cstdint>
#include <functional>
#include <string>

namespace installer {

/// What a payload may take on disk, in bytes.
struct Allowance {
    std::uint64_t available = 0; ///< free on the file system
    std::uint64_t stated = 0;    ///< what the package says it needs, with some tolerance
};

/// Counts what a payload takes on disk.
class DiskUsage {
  public:
    void addEntry() { bytes_ += kBlock; }
    void addData(std::uint64_t size) { contents_ += size; }
    std::uint64_t contents() const { return contents_; } ///< bytes in files
    /// `contents` plus one block for each entry, for its metadata and a partly filled last block.
    std::uint64_t bytes() const { return bytes_ + contents_; }

  private:
    static constexpr std::uint64_t kBlock = 4096;
    std::uint64_t bytes_ = 0;
    std::uint64_t contents_ = 0;
};

/// Writes a payload into an empty folder that no one else can enter, with the modes and times that it states.
/// Whatever owner and mode it states, everything belongs to the user who runs this program (root) and is
/// writable by its owner only: the package cannot know this machine's users. Makes the folder the process's
/// working folder. Not thread-safe.
class Unpacker : public package::PayloadSink {
  public:
    /// `location` is relative to the folder; `onProgress` is called after each piece. Throws Failure when the
    /// folder cannot be entered.
    Unpacker(int folder, std::string location, Allowance allowance, std::function<void()> onProgress);

    /// These throw Failure when something cannot be written, takes more than allowed, or is in a reserved
    /// place.
    void begin(const package::PayloadEntry& entry) override;
    void data(const void* bytes, std::size_t size, std::int64_t offset) override;
    void end() override;

    /// Sets the folders' modes and times, once they are complete.
    void finish();

    std::uint64_t bytes() const { return usage_.contents(); } ///< in files
    std::uint64_t entries() const { return entries_; }

  private:
    void checkAllowance() const;
    void startWriting(std::uint64_t least);
    void require(int result, const char* doing);

    package::ArchiveWriter disk_;
    std::string location_;
    Allowance allowance_;
    std::function<void()> onProgress_;
    std::string current_; // path being written
    DiskUsage usage_;
    std::uint64_t entries_ = 0;
    std::uint64_t unwritten_ = 0; // bytes of the current file that startWriting has not seen
};

} // namespace installer
