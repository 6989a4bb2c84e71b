#pragma once

#include "base/FileDescriptor.h"

#include <sys/types.h>

#include <string>

namespace rights {

/// Opens a package with the rights of `user` and no others, in a process of its own: the file system may be
/// one that answers late. A descriptor arrives on the socket that is returned, or the socket is at its end of
/// file where the package could not be opened. The socket is not open where no process could be made.
FileDescriptor openPackageAs(uid_t user, const std::string& path);

/// Takes a descriptor from the socket. Not open where there is none.
FileDescriptor receiveDescriptor(int socket);

} // namespace rights
