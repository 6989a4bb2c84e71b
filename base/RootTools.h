#pragma once

#include "base/FileDescriptor.h"
#include "base/PrivilegedCommands.h"

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

/// What root does to run the commands of an installation: for the rights service, and for a window that is
/// root.

/// Whether the file exists, and it and every folder above it belong to root and are writable by no one else.
bool isRootsAlone(const std::filesystem::path& file);

/// Opens the package with the rights of this process, without waiting and without following a link in its
/// last place. Not open, with `errno` set, unless `path` is an absolute path to a Pellomar.pkg.
FileDescriptor openPackage(const std::filesystem::path& path);

/// Whether the descriptor is a regular file of `owner`; of anybody, where `owner` is root.
bool isPackageOf(int descriptor, uid_t owner);

/// One attempt's replacement of the installed application: it is kept aside until the attempt is over, and
/// put back unless another version has been installed. A process of its own sees to it, however this one
/// ends.
struct Transaction {
    /// A byte arrives once the application is set aside, or end of file where that failed; and end of file
    /// once the transaction is over.
    FileDescriptor state;
    /// The attempt is over when all copies of this are closed.
    FileDescriptor hold;

    /// Starts one, which begins when every earlier one is over.
    static Transaction begin(std::error_code& failure);
    /// Waits until every earlier one is over, and ends one that was interrupted, for example by a power
    /// failure. Only `state` is open, until that is done.
    static Transaction endLeftOver(std::error_code& failure);
};

/// The commands of one grant.
class GrantedCommands {
  public:
    /// The command that this line is, which cannot be taken a second time; or nothing, and why in `refusal`.
    std::optional<PrivilegedCommand> take(const std::vector<std::string>& line, std::string& refusal);

    /// Starts a command that was taken as a child process with a clean environment, its standard output
    /// connected to `output`. Returns its process id, or -1 and why in `failure`.
    pid_t start(PrivilegedCommand command, const std::vector<std::string>& line, int output,
                std::error_code& failure);

    /// Leaves nothing but the query of the driver, after an installer that failed: its status is not what the
    /// window judges it by, and the query only reads.
    void endInstallation();

    FileDescriptor package; ///< what the installer reads, its from the start
    FileDescriptor hold;    ///< the transaction's; held by the installer alone once it is started

  private:
    std::vector<PrivilegedCommand> taken_;
};
