#pragma once

#include <optional>
#include <string>
#include <system_error>

/// File operations with the platform's file manager semantics. Paths are bytes. All are synchronous and
/// callable from any thread; none throws.

/// Whether something exists at `path`, and whether that is a folder. Both follow symbolic links.
bool fileExists(const std::string& path);
bool isFolder(const std::string& path);

/// Creates a folder and its missing parents. Succeeds if the folder exists already.
std::error_code createDirectory(const std::string& path);

/// Removes a file, a symbolic link itself, or a folder with all it holds. An absent path is an error.
std::error_code removeItem(const std::string& path);

/// Moves a file or folder within a file system; an existing target is an error.
std::error_code moveItem(const std::string& from, const std::string& to);

/// Creates an empty file, or truncates an existing one.
std::error_code createFile(const std::string& path);

/// The whole content of a file, or nothing if it cannot be opened or read.
std::optional<std::string> readFile(const std::string& path);
