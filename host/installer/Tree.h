#pragma once

#include "package/FileDescriptor.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

// Folders and what is in them, reached without ever following a symbolic link. Each call throws Failure when
// the system refuses.
namespace installer {

// Opens the folder at `path` below `folder`; an empty path is `folder` itself.
package::FileDescriptor openFolder(int folder, const std::string& path);

// The entry's own status, a link's included; empty where there is no such entry.
std::optional<struct stat> statusOf(int folder, const std::string& name);

// The names in a folder, sorted.
std::vector<std::string> namesIn(int folder);

// Removes the entry and all that is below it; none there is fine.
void removeTree(int folder, const std::string& name);

// Moves an entry within a file system. Where a folder cannot be renamed as a whole (in an overlay, one of the
// lower layer), what it holds is moved piece by piece into a new folder of the same mode, owner and times. A
// folder at the new place, left by such a move that was cut short, is filled up; anything else there is a
// Failure.
void moveTree(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName);

} // namespace installer
