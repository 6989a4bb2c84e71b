#include "install/InstallAttempt.h"

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

CommandStart runPrivilegedCommand(const std::string& toolPath, const std::vector<std::string>& arguments,
                                  AuthorizationRef authorization, std::string& output,
                                  void (*afterReading)(const std::string& output)) {
    FILE* pipe = nullptr;
    const OSStatus status = AuthorizationExecuteWithPrivileges(authorization, toolPath,
                                                               kAuthorizationFlagDefaults, arguments, &pipe);
    CommandStart start{status, {pipe, [](FILE* stream) { return fclose(stream); }}};
    if (status != errAuthorizationSuccess) {
        NSLog("%s could not be started as root:%d", toolPath.c_str(), static_cast<int>(status));
    }
    if (pipe != nullptr) {
        std::array<char, 1024> block{};
        while (const std::size_t count = fread(block.data(), 1, block.size(), pipe)) {
            output.append(block.data(), count);
        }
        if (afterReading != nullptr) {
            afterReading(output);
        }
        reapEveryChild();
    }
    return start;
}
