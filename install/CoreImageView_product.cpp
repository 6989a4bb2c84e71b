#include "base/ChildProcess.h"
#include "base/Pipe.h"
#include "platform/Log.h"
#include "platform/Workspace.h"
#include "report/Leave.h"
#include "rights/PrivilegedCommands.h"
#include "ui/CoreImageView.h"
#include "ui/StatusTexts.h"

void CoreImageView::killTovaniPlayer() {
    // Never read from or written to.
    const Pipe input;
    const Pipe output;
    const Pipe errors;
    ChildProcess killall;
    killall.path = "/usr/bin/killall";
    killall.arguments = {"Pellomar"};
    killall.standardInput = input.readEnd.get();
    killall.standardOutput = output.writeEnd.get();
    killall.standardError = errors.writeEnd.get();
    // It is no error when no copy runs or killall is missing.
    if (const pid_t pid = killall.start(); pid > 0) {
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
