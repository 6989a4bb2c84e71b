#pragma once

#include "package/Archive.h"
#include "package/Payload.h"

#include <cstdint>
#include <functional>
#include <string>

namespace installer {

// What a payload may take on disk.
struct Allowance {
    std::uint64_t available = 0; // bytes that are free
    std::uint64_t stated = 0;    // bytes that the package says it needs, with some tolerance
};

// Writes a payload into a folder that is ours alone and empty, with the modes, times and (as root) owners
// that it states. Makes the folder the process's working folder. Not thread-safe.
class Unpacker : public package::PayloadSink {
  public:
    // `location` is relative to the folder; `onProgress` is called after each piece. Throws Failure when the
    // folder cannot be entered.
    Unpacker(int folder, std::string location, Allowance allowance, std::function<void()> onProgress);

    // Throw Failure when something cannot be written, or takes more than allowed.
    void begin(const package::PayloadEntry& entry) override;
    void data(const void* bytes, std::size_t size, std::int64_t offset) override;
    void end() override;

    // Gives the folders their modes and times, which wait until nothing more goes into them.
    void finish();

    std::uint64_t bytes() const { return bytes_; } // of file contents
    std::uint64_t entries() const { return entries_; }

  private:
    void checkAllowance() const;
    void expect(int result, const char* doing);

    package::ArchiveWriter disk_;
    std::string location_;
    Allowance allowance_;
    std::function<void()> onProgress_;
    std::string current_; // path being written
    std::uint64_t bytes_ = 0;
    std::uint64_t entries_ = 0;
};

} // namespace installer
