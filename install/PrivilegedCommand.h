#pragma once

#include "platform/Authorization.h"

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

/// One install attempt, used by its set-up and then by its worker.
struct InstallAttempt {
    AuthorizationOwner authRef;
    OSStatus authStatus = errAuthorizationSuccess; ///< result of the last authorization call
    bool existingAppIsDir = false;                 ///< an old copy was there when the attempt began
    std::string output;                            ///< what the tools printed, as bytes
};

/// How a privileged command was started.
struct CommandStart {
    OSStatus authStatus;                        ///< of the start; the tool's own exit status is not seen
    std::unique_ptr<FILE, int (*)(FILE*)> pipe; ///< its standard output; null where it did not start
};

/// Asks for administrator rights and blocks until the user has answered. False on refusal, with the reason in
/// `authStatus` and `authRef` null; a refusal is logged unless the user cancelled. Any thread.
bool obtainRights(InstallAttempt& attempt);

/// Runs a tool as root, which takes as long as it runs: appends all that it prints to `output`, calls
/// `afterReading` with that, and then waits until no child of this process is left. Does none of these where
/// the tool did not start, which is logged. On the install worker.
CommandStart runPrivilegedCommand(const std::string& toolPath, const std::vector<std::string>& arguments,
                                  AuthorizationRef authorization, std::string& output,
                                  void (*afterReading)(const std::string& output) = nullptr);
