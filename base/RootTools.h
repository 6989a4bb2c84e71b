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

/// Whether the file exists, and it, every folder above it, every symbolic link on the way and what each leads
/// to belong to root and are writable by no one else. False for a relative path.
bool isRootsAlone(const std::filesystem::path& file);

/// One attempt to replace the installed application: it is set aside until the attempt is over, and put back
/// unless another version has been installed. A separate process does this, however this process ends.
struct Transaction {
    /// A byte arrives once it is known whether the application is set aside (see base/TransactionAnswer.h),
    /// and end of file once the transaction is over.
    FileDescriptor state;
    /// The attempt is over when all copies of this are closed.
    FileDescriptor hold;

    /// Starts one, which begins when every earlier one is over.
    static Transaction begin(std::error_code& failure);
    /// Starts a process that waits until every earlier transaction is over, and ends one that was
    /// interrupted, for example by a power failure. Returns at once with only `state` open, which reaches
    /// end of file when that process is done or could not be started.
    static Transaction endLeftOver(std::error_code& failure);

    /// Reads that byte. False, too, where none came: nothing may be removed then.
    static bool isSetAside(int state);
};

/// The commands of one grant.
class GrantedCommands {
  public:
    /// The command whose command line is `line`. Each command can be taken once. Nothing, with the reason in
    /// `refusal`, when there is no such command or it has been taken.
    std::optional<PrivilegedCommand> take(const std::vector<std::string>& line, std::string& refusal);

    /// Starts a command that was taken as a child process with a clean environment. The installer opens the
    /// package as `user`, if one is given. Returns the process id, with the read end of a pipe in `output` to
    /// which only the tool writes; or -1 and why in `failure`.
    pid_t start(PrivilegedCommand command, const std::vector<std::string>& line, std::optional<uid_t> user,
                FileDescriptor& output, std::error_code& failure);

    /// What the caller of rm reads where nothing may be removed: one line, with none of the words by which
    /// outcomes are judged. Not open, with `errno` set, where no pipe can be made.
    static FileDescriptor outputOfNoRemoval();

    /// After an installer that failed: allows nothing more than the driver query, which changes nothing. The
    /// window judges the installer by its output, not by its status, so it may still send that query.
    void endInstallation();

    FileDescriptor hold; ///< of the transaction; closed here once the installer has been started

  private:
    std::vector<PrivilegedCommand> taken_;
};
