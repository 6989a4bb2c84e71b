#pragma once

/// The processes that a process starts, and those that they start in turn.
namespace installer {

/// From here on, descendants whose parents end become children of this process. Inherited by no child.
void adoptOrphans();

/// Kills all descendants and waits until they have ended. To be called where adoptOrphans was called before,
/// and no child is of use any more.
void endDescendants();

} // namespace installer
