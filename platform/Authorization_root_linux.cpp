#include "platform/Authorization_root_linux.h"

#include "platform/ChildProcess.h"
#include "platform/FileDescriptor.h"

#include <fcntl.h>
#include <unistd.h>

namespace {

struct RootAuthorization : AuthorizationOpaque {
    OSStatus copyRights(const std::string& /*right*/, unsigned /*flags*/) override {
        return errAuthorizationSuccess;
    }

    OSStatus execute(const std::string& toolPath, const std::vector<std::string>& arguments,
                     FILE** pipe) override {
        int ends[2];
        if (pipe2(ends, O_CLOEXEC) != 0) {
            return errAuthorizationToolExecuteFailure;
        }
        FileDescriptor readEnd(ends[0]);
        FileDescriptor writeEnd(ends[1]);
        ChildProcess tool;
        tool.path = toolPath;
        tool.arguments = arguments;
        // The outcome is judged by words: the tools must speak the language that the words are in.
        tool.environment = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "HOME=/root"};
        tool.workingFolder = "/";
        tool.standardInput = ChildProcess::kNull;
        tool.standardOutput = writeEnd.get();
        std::error_code failure;
        if (tool.start(failure) < 0) {
            return errAuthorizationToolExecuteFailure;
        }
        writeEnd.reset();
        *pipe = fdopen(readEnd.get(), "r");
        if (*pipe == nullptr) {
            return errAuthorizationToolExecuteFailure;
        }
        [[maybe_unused]] const int nowTheStreams = readEnd.release();
        return errAuthorizationSuccess;
    }
};

} // namespace

AuthorizationRef makeRootAuthorization() {
    return new RootAuthorization;
}
