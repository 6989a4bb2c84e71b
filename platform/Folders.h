#pragma once

#include <string>

/// The user's home folder: $HOME where it is set to an absolute path, else the account's. Any thread.
std::string NSHomeDirectory();

/// The user's Documents folder, `$HOME/Documents` whatever the language of the desktop; made when it is
/// missing. The path is returned even where it could not be made. Any thread.
std::string documentsDirectory();
