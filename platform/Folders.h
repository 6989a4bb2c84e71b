#pragma once

#include <string>

/// The user's home folder: $HOME if that is an absolute path, else the account's. Any thread.
std::string NSHomeDirectory();

/// Creates the user's Documents folder if it is missing: `$HOME/Documents`, whatever the desktop's language.
/// Returns its path even if it could not be created. Any thread.
std::string createDocumentsDirectory();
