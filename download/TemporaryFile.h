#pragma once

#include <string>

/// The download's place under the user's home. Paths are formed anew on each call.
std::string downloadDirectory();
std::string temporaryFilePath();
std::string packagePath();

/// Makes the empty temporary file in `directory`: makes the folder where it is missing, clears a plain file
/// out of its place, removes the last download's file. Returns "" on success, else the text for the user: the
/// system's cause for the folder, or that the file can't be made. Any thread.
std::string createTemporaryFile(const std::string& directory);
