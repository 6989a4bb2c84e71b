#include "install/Product.h"
#include "platform/ChildProcess.h"
#include "platform/FileDescriptor.h"
#include "platform/Log.h"
#include "platform/Workspace.h"
#include "ui/CoreImageView.h"
#include "ui/Leave.h"
#include "ui/StatusTexts.h"

#include <fcntl.h>

#include <array>

namespace {

/// A pipe that nobody on our side reads or writes; both ends stay open while it lives.
struct UnusedPipe {
    FileDescriptor readEnd;
    FileDescriptor writeEnd;

    UnusedPipe() {
        std::array<int, 2> ends{};
        if (pipe2(ends.data(), O_CLOEXEC) == 0) {
            readEnd = FileDescriptor(ends[0]);
            writeEnd = FileDescriptor(ends[1]);
        }
    }
};

} // namespace

void CoreImageView::killTovaniPlayer() {
    const UnusedPipe input;
    const UnusedPipe output;
    const UnusedPipe errors;
    ChildProcess killall;
    killall.path = "/usr/bin/killall";
    killall.arguments = {kApplicationProcess};
    killall.standardInput = input.readEnd.get();
    killall.standardOutput = output.writeEnd.get();
    killall.standardError = errors.writeEnd.get();
    // No running copy, or no killall, is no reason to stop here.
    std::error_code ignored;
    if (const pid_t pid = killall.start(ignored); pid > 0) {
        waitUntilExit(pid);
    }
}

void CoreImageView::startTovaniPlayer(const void* /*unused*/) {
    updateStatus(status::kLaunching);
    if (const auto problem = launchApplication(kApplicationPath)) {
        NSLog("launch Pellomar.app error:%s", problem->c_str());
        updateStatus(status::kLaunchFailed);
        return;
    }
    leave();
}
