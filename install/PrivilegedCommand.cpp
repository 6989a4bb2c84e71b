#include "install/PrivilegedCommand.h"

#include "base/ChildProcess.h"
#include "platform/Log.h"

#include <array>

bool obtainRights(InstallAttempt& attempt) {
    constexpr char kRight[] = "com.norvik.PellomarDownloader";
    NSLog("asking for administrator rights");
    AuthorizationRef created = nullptr;
    const OSStatus creation = AuthorizationCreate(&created);
    attempt.authRef.reset(created);
    if (creation != errAuthorizationSuccess) {
        NSLog("Could not create authorization reference object.");
        attempt.authStatus = errAuthorizationBadAddress;
    } else {
        attempt.authStatus =
            AuthorizationCopyRights(created, kRight,
                                    kAuthorizationFlagInteractionAllowed | kAuthorizationFlagExtendRights |
                                        kAuthorizationFlagPreAuthorize);
    }
    if (attempt.authStatus == errAuthorizationSuccess) {
        NSLog("administrator rights obtained");
        return true;
    }
    attempt.authRef.reset();
    if (attempt.authStatus != errAuthorizationCanceled) {
        NSLog("Pre-auth failed");
    }
    return false;
}

ToolPipe runPrivilegedCommand(InstallAttempt& attempt, PrivilegedCommand command,
                              const std::string& package) {
    const std::vector<std::string> line = commandLine(command, package);
    const std::string& toolPath = line.front();
    FILE* pipe = nullptr;
    attempt.authStatus = AuthorizationExecuteWithPrivileges(
        attempt.authRef.get(), toolPath, kAuthorizationFlagDefaults, {line.begin() + 1, line.end()}, &pipe);
    if (attempt.authStatus != errAuthorizationSuccess) {
        NSLog("%s could not be started as root:%d", toolPath.c_str(), static_cast<int>(attempt.authStatus));
    }
    return {pipe, [](FILE* stream) { return fclose(stream); }};
}

void readAndReap(InstallAttempt& attempt, ToolPipe pipe) {
    std::array<char, 1024> block{};
    while (const std::size_t count = fread(block.data(), 1, block.size(), pipe.get())) {
        attempt.output.append(block.data(), count);
    }
    reapEveryChild();
}
