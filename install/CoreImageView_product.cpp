#include "install/Product.h"
#include "platform/ChildProcess.h"
#include "platform/Log.h"
#include "platform/Pipe.h"
#include "platform/Workspace.h"
#include "ui/CoreImageView.h"
#include "ui/Leave.h"
#include "ui/StatusTexts.h"

void CoreImageView::killTovaniPlayer() {
    // Nobody reads or writes on our side.
    const Pipe input;
    const Pipe output;
    const Pipe errors;
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
    NSLog("launch Pellomar.app successful");
    leave();
}
