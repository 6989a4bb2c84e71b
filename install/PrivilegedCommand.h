#pragma once

#include "base/PrivilegedCommands.h"
#include "platform/Authorization.h"

#include <cstdio>
#include <memory>
#include <string>

/// One install attempt, shared by its set-up and its worker, one after the other.
struct InstallAttempt {
    AuthorizationRef authRef = nullptr;
    OSStatus authStatus = errAuthorizationSuccess; ///< result of the last authorization call
    bool existingAppIsDir = false;                 ///< an old copy was there when the attempt began
    std::string output;                            ///< what the tools printed, as bytes
};

/// A tool's standard output; null where the tool did not start. Closing it is its owner's business.
using ToolPipe = std::unique_ptr<FILE, int (*)(FILE*)>;

/// Asks for administrator rights, which takes as long as a person does. False on refusal, with `authStatus`
/// telling why and nothing left to free; everything but the user's own cancelling is logged. Any thread.
bool obtainRights(InstallAttempt& attempt);

/// Gives the rights up, unless that was done already.
void giveUpRights(InstallAttempt& attempt);

/// Starts the command as root and stores the result in `authStatus`. `package` is what InstallPackage
/// installs.
ToolPipe runPrivilegedCommand(InstallAttempt& attempt, PrivilegedCommand command,
                              const std::string& package = {});

/// Appends all that the tool prints to the attempt's output, then waits until no child is left.
void readAndReap(InstallAttempt& attempt, ToolPipe pipe);
