#include "platform/Authorization_root_linux.h"

#include "base/ChildProcess.h"
#include "base/Pipe.h"
#include "base/RootEnvironment.h"

namespace {

struct RootAuthorization : AuthorizationOpaque {
    OSStatus copyRights(const std::string& /*right*/, unsigned /*flags*/) override {
        return errAuthorizationSuccess;
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FILE** pipe) override {
        Pipe output;
        ChildProcess tool;
        tool.path = toolPath;
        tool.arguments = arguments;
        // The outcome is judged by words: the tools must speak the language that the words are in.
        tool.environment = {kRootPath, "LC_ALL=C", kRootHome};
        tool.workingFolder = "/";
        tool.standardInput = ChildProcess::kNull;
        tool.standardOutput = output.writeEnd.get();
        std::error_code failure;
        if (!output.writeEnd.isOpen() || tool.start(failure) < 0) {
            return errAuthorizationToolExecuteFailure;
        }
        *pipe = output.takeReadStream();
        return *pipe == nullptr ? errAuthorizationToolExecuteFailure : errAuthorizationSuccess;
    }
};

} // namespace

AuthorizationRef makeRootAuthorization() {
    return new RootAuthorization;
}
