#pragma once

#include <string>

/// Where the download is stored under the user's home, which is read on each call.
std::string downloadDirectory();
std::string temporaryFilePath();
std::string packagePath();

/// Creates the empty temporary file in `directory`, replacing the last download's. Creates the folder if it
/// is missing; a plain file in its place is removed. Returns "" on success, else the text for the user: the
/// system's cause when the folder can't be created, or that the file can't be. The outcome is logged. Any
/// thread.
std::string createTemporaryFile(const std::string& directory);
