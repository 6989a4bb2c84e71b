#pragma once

#include <optional>
#include <string>
#include <system_error>

/// File operations with the platform's file manager semantics. Paths are bytes. All are synchronous and
/// callable from any thread; none throws.

/// Whether something exists at `path`, symbolic links followed; `isDirectory` (optional) receives whether it
/// is a folder, and false where nothing exists.
bool fileExists(const std::string& path, bool* isDirectory = nullptr);

/// Makes a folder and its missing parents. Succeeds where the folder exists already.
std::error_code createDirectory(const std::string& path);

/// Removes a file, a symbolic link itself, or a folder with all it holds. An absent path is an error.
std::error_code removeItem(const std::string& path);

/// Moves a file or folder within a file system; an existing target is an error.
std::error_code moveItem(const std::string& from, const std::string& to);

/// Makes an empty file, replacing what an existing file held. Answers whether that worked.
bool createFile(const std::string& path);

/// The whole content of a file, or nothing where it cannot be opened or read.
std::optional<std::string> readFile(const std::string& path);

/// A short Chinese sentence for the cause of a failure, for the user's eyes.
std::string localizedDescription(const std::error_code& error);
