#pragma once

#include "installer/Archive.h"
#include "installer/Payload.h"

#include <functional>
#include <string>
#include <unordered_set>

namespace installer {

// Writes a payload below a folder. Folders that are there already are shared with others and stay as they
// are; files and links that are there are replaced by name, never written through. Files belong to whoever
// runs the program. What was written stays when a later entry fails.
class Unpacker : public PayloadSink {
  public:
    // `location` is relative to `target`; `onBytes` hears how many bytes each write added. Makes `target` the
    // process's working folder; throws Failure when that is not possible.
    Unpacker(const std::string& target, std::string location, std::function<void(std::uint64_t)> onBytes);

    void begin(const PayloadEntry& entry) override;
    void data(const void* bytes, std::size_t size, std::int64_t offset) override;
    void end() override;

    // Gives the new folders their modes and times, which wait until nothing more goes into them.
    void finish();

  private:
    void makeRoom(const std::string& path, bool isFolder);
    void expect(int result, const char* doing);

    ArchiveWriter disk_;
    std::string location_;
    std::function<void(std::uint64_t)> onBytes_;
    std::string current_;                     // path being written
    bool skipped_ = false;                    // the current entry is a folder that others share
    std::unordered_set<std::string> implied_; // new folders whose own entry may follow what they hold
};

} // namespace installer
