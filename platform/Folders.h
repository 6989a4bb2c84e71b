#pragma once

#include <string>

/// The user's home folder: $HOME where it is set to an absolute path, else the account's. Any thread.
std::string NSHomeDirectory();

/// The user's Documents folder, `$HOME/Documents` whatever the desktop's language, created when missing. The
/// path is returned even when it could not be created. Any thread.
std::string documentsDirectory();
