#pragma once

/// The processes that a process starts, and those that they start in turn.
namespace installer {

/// Makes this process a child subreaper: orphaned descendants become its children. Child processes do not
/// inherit this.
void adoptOrphans();

/// Kills all descendants and waits until they have ended, ten seconds at most: one that waits for a device or
/// a file system does not end before that answers. Requires a previous call of adoptOrphans.
void endDescendants();

} // namespace installer
