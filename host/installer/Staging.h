#pragma once

#include "package/FileDescriptor.h"

#include <string>
#include <string_view>

namespace installer {

// The folder, below the target and ours alone, where an install is prepared, and from which an unfinished one
// is undone. It holds:
//   new/     what is to be installed, at its place relative to the target
//   scripts/ the package's scripts
//   plan     the places below the target that change hands, written before the first one does
//   old/N    what was at the plan's Nth place
//   done     present once the install counts
// Not thread-safe; one process at a time has it, and its children.
class Staging {
  public:
    // Takes the target's staging folder. What a run that was cut short left there is undone first. Throws
    // Failure when the target is no folder, when another install is under way in it, or when undoing fails.
    explicit Staging(const std::string& target);
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    int target() const { return target_.get(); }
    int folder() const { return folder_.get(); }

    // Makes and opens a folder in it, which only we can enter.
    package::FileDescriptor makeFolder(const std::string& name) const;

    // Puts everything that is in new/ into the target: what is not there yet and what is there as a bundle
    // comes as a whole, other folders are shared with what they hold already. Can be undone until markDone.
    // Throws Failure, with nothing moved, when the target has something else where a folder or file goes.
    void swapIn() const;

    // From here on the install counts.
    void markDone() const;
    bool isDone() const;

    // Leaves the target as it was, unless the install counts, and removes the folder. Throws Failure when
    // something of the target could not be put back; it is then kept for another try.
    void close() const;

  private:
    void settle() const; // leaves the folder empty
    void sync() const;

    package::FileDescriptor target_;
    package::FileDescriptor folder_;
};

} // namespace installer
