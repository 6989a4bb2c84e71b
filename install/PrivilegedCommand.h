#pragma once

#include "base/PrivilegedCommands.h"
#include "platform/Authorization.h"

#include <cstdio>
#include <memory>
#include <string>

/// One install attempt, used by its set-up and then by its worker.
struct InstallAttempt {
    AuthorizationOwner authRef;
    OSStatus authStatus = errAuthorizationSuccess; ///< result of the last authorization call
    bool existingAppIsDir = false;                 ///< an old copy was there when the attempt began
    std::string output;                            ///< what the tools printed, as bytes
};

/// A tool's standard output; null where the tool did not start.
using ToolPipe = std::unique_ptr<FILE, int (*)(FILE*)>;

/// Asks for administrator rights and blocks until a person has answered. False on refusal, with the reason in
/// `authStatus` and `authRef` null; a refusal is logged unless the user cancelled. Any thread.
bool obtainRights(InstallAttempt& attempt);

/// Starts the command as root and stores the result in `authStatus`. `package` is what InstallPackage
/// installs.
ToolPipe runPrivilegedCommand(InstallAttempt& attempt, PrivilegedCommand command,
                              const std::string& package = {});

/// Appends all that the tool prints to the attempt's output, then waits until no child is left.
void readAndReap(InstallAttempt& attempt, ToolPipe pipe);
