#pragma once

#include "base/FileDescriptor.h"
#include "host/installer/StagingLayout.h"

#include <chrono>
#include <string>
#include <string_view>

namespace installer {

/// The folder, below the target and accessible to its owner only, where an install is prepared, and from
/// which an interrupted one is undone. It holds:
///   new/         what is to be installed, at its place relative to the target
///   scripts/     the package's scripts
///   plan         the places below the target that are swapped, written before the first swap
///   old/N        what was at the plan's Nth place
///   done         present once the install is committed
///   aside/       the application that was moved out of the way beforehand, see SetAside.h
///   discarded.N  what could not be removed, because something is mounted in it; tried again later
/// Not thread-safe. One process at a time, and its children, hold the lock.
class Staging {
  public:
    /// Takes the target's staging folder, waiting up to `patience` for another process to release it, and
    /// cleans up after an interrupted run: an install that was not committed is undone, an application that
    /// was moved aside in part is moved back. Throws Failure when the target is no folder, when another
    /// install is under way in it, or when undoing fails.
    explicit Staging(const std::string& target, std::chrono::seconds patience = {});
    Staging(const Staging&) = delete;
    Staging& operator=(const Staging&) = delete;

    TargetFolder target() const { return {target_.get()}; }
    StagingFolder folder() const { return {folder_.get()}; }

    /// Makes and opens a folder in it, accessible to its owner only.
    FileDescriptor makeFolder(const std::string& name);

    /// Moves everything in new/ into the target. Files, links and bundles replace what is there; a folder
    /// that the target lacks is moved as a whole, other folders are merged. Can be undone until markDone.
    /// Throws Failure: before anything is moved when the target has an entry of another kind in the way,
    /// later when a move fails.
    void swapIn();

    /// Commits the install.
    void markDone();
    bool isDone() const;

    /// Removes the application that was moved aside.
    void discardAside();

    /// Removes what is at the application's place, if anything is.
    void discardApplication();

    /// Leaves the target as it was, unless the install is committed, and removes the folder if nothing is set
    /// aside in it. Throws Failure when something of the target could not be put back; it is kept for another
    /// try.
    void close();

  private:
    void settle();
    void complete();
    void undo();
    void clean();
    void discard(const std::string& name);
    std::string unusedName() const;
    void removeDiscarded();
    void syncFolder();

    FileDescriptor target_;
    FileDescriptor folder_;
};

} // namespace installer
