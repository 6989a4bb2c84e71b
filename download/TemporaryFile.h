#pragma once

#include <optional>
#include <string>

/// Where the download is stored below the user's home. $HOME is read on each call.
std::string downloadDirectory();
std::string temporaryFilePath();
std::string packagePath();

/// Creates the empty temporary file in `directory`, replacing the last download's. Creates the folder if it
/// is missing; a plain file in its place is removed. Returns nothing on success, else a text for the user:
/// the system's reason if the folder can't be created, a fixed text if the file can't be. The outcome is
/// logged. Any thread.
std::optional<std::string> createTemporaryFile(const std::string& directory);
