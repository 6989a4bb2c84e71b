#pragma once

#include "base/FileDescriptor.h"
#include "rights/PrivilegedCommands.h"

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

/// How root runs the commands of an installation: for the rights service, and for a window that is root.

/// Starts a process that waits until every earlier attempt is over, and ends one that was interrupted, for
/// example by a power failure. Returns immediately; what it returns reads end of file when that process has
/// ended, and is not open if it could not be started.
FileDescriptor endEarlierAttempts();

/// The commands of one grant, and the attempt to replace the installed application that they make.
class GrantedCommands {
  public:
    /// Returns the command whose command line is `line`. Each command can be taken once. nullopt, with the
    /// reason in `refusal`, if there is no such command or it has been taken.
    std::optional<PrivilegedCommand> take(const std::vector<std::string>& line, std::string& refusal);

    /// Starts a process that sets the application aside once every earlier attempt is over, and puts it back
    /// when this attempt is over unless another version has been installed: when this object, the removal and
    /// the installer have all ended, however they ended. Returns immediately with the descriptor from which
    /// its answer is to be read; not open, with `errno` set, if it could not be started.
    FileDescriptor setAside();

    /// Reads that answer: whether the application is set aside or there is none. Otherwise nothing may be
    /// removed.
    static bool isSetAside(int answer);

    /// Starts a command that was taken as a child process with a clean environment. The installer opens the
    /// package as `user`, if one is given. The tool, and every folder and symbolic link on the way to it,
    /// must be root's and writable by no one else. Returns the process id, with the read end of a pipe in
    /// `output` to which only the tool writes; or -1 with `errno` set.
    pid_t start(PrivilegedCommand command, const std::vector<std::string>& line, std::optional<uid_t> user,
                FileDescriptor& output);

    /// A descriptor to be read instead of the output of a removal that is not started: one line, with none of
    /// the words by which outcomes are judged. Not open, with `errno` set, if no pipe can be made.
    static FileDescriptor outputOfNoRemoval();

    /// After an installer that failed: allows nothing more than the driver query, which changes nothing. The
    /// window judges the installer by its output, not by its status, so it may still send that query.
    void endInstallation();

  private:
    std::vector<PrivilegedCommand> taken_;
    FileDescriptor hold_; // the attempt is not over while a copy of this is open
};
