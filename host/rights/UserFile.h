#pragma once

#include "base/FileDescriptor.h"

#include <sys/types.h>

#include <string>

namespace rights {

/// Opens a package with the rights of `user` and no others, in a separate process, since the file system may
/// block. Returns a socket on which the descriptor arrives, or which reaches end of file when the package
/// could not be opened. It is not open when no process could be started.
FileDescriptor openPackageAs(uid_t user, const std::string& path);

/// Takes a descriptor from the socket. Not open where there is none.
FileDescriptor receiveDescriptor(int socket);

} // namespace rights
