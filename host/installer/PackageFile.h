#pragma once

#include "base/FileDescriptor.h"
#include "host/package/Package.h"

#include <sys/types.h>

#include <optional>
#include <string>

namespace installer {

/// The package's file, which is opened once, so that what is checked is what is installed.
///
/// If the environment names a user (see kPackageUser), a child process that has become that user opens it:
/// this discloses nothing that the user could not read, and reaches files that root cannot.
class PackageFile {
  public:
    /// Starts that child, which inherits nothing that is opened later. Throws Failure when it cannot.
    explicit PackageFile(std::string path);

    /// Opens the file; of a user's, waits ten seconds at most for the child, since that user can stop it, and
    /// the file must be the user's own, with no link as its last component. Throws Failure. The type of the
    /// file is not checked. Call it once.
    package::OpenedFile open();

  private:
    std::string path_;
    std::optional<uid_t> user_;
    FileDescriptor fromChild_;
};

} // namespace installer
