#pragma once

#include "rights/Authorization.h"

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
    std::unique_ptr<FILE, int (*)(FILE*)> pipe; ///< its standard output; null if it did not start
};

/// Asks for administrator rights and blocks until the user has answered. False on refusal, with the reason in
/// `authStatus` and `authRef` null; a refusal is logged unless the user cancelled. Any thread.
bool obtainRights(InstallAttempt& attempt);

/// Starts a tool as root and blocks until it has closed its output: appends all of that to `output`, calls
/// `afterReading` with `output`, and then waits until this process has no child left. A tool that cannot be
/// started is logged, and none of this is done. On the install worker.
CommandStart runPrivilegedCommand(const std::string& toolPath, const std::vector<std::string>& arguments,
                                  AuthorizationRef authorization, std::string& output,
                                  void (*afterReading)(const std::string& output) = nullptr);
