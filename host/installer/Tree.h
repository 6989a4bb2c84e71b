#pragma once

#include "base/FileDescriptor.h"

#include <sys/stat.h>

#include <optional>
#include <string>
#include <vector>

// Folders and their entries, never following a symbolic link. Each call throws Failure when the system
// refuses.
namespace installer {

/// Opens the folder at `path` below `folder`; an empty path is `folder` itself.
FileDescriptor openFolder(int folder, const std::string& path);

/// The same, after making the folders that are missing on the way.
FileDescriptor makeFolders(int folder, const std::string& path);

/// Whether something is mounted there. False also if that cannot be told.
bool isMountPoint(int folder, const std::string& name);

/// The entry's own status (of a link, not of its target); nullopt if there is no such entry.
std::optional<struct stat> statusOf(int folder, const std::string& name);

/// Whether the entry, which must exist, is a folder and no link to one.
bool isFolder(int folder, const std::string& name);

/// The names in a folder, sorted.
std::vector<std::string> namesIn(int folder);

/// Removes the entry and everything below it, but nothing on another mount or more than 4096 folders deep. A
/// missing entry is no failure. `depth` is that of the entry.
void removeTree(int folder, const std::string& name, unsigned depth = 0);

/// Writes everything that was changed on the folder's file system to disk.
void sync(int folder);

/// Renames the entry unless the new name is taken. False, with errno set, when the system refuses.
bool renameWhole(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName);

/// Moves an entry within a file system. A folder that cannot be renamed (in an overlay, one of the lower
/// layer) is moved entry by entry into a new folder of the same mode, owner and times. A folder at the new
/// place, left by an interrupted move, is filled up; anything else there is a Failure.
void moveTree(int fromFolder, const std::string& fromName, int toFolder, const std::string& toName);

} // namespace installer
