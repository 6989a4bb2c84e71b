#include "base/ChildProcess.h"
#include "platform/FileManager.h"
#include "platform/Folders.h"
#include "platform/Log.h"
#include "platform/PropertyList.h"
#include "platform/Workspace.h"

#include <cerrno>

namespace {

ChildProcess detached(const std::string& path) {
    ChildProcess program;
    program.path = path;
    program.workingFolder = NSHomeDirectory();
    program.ownSession = true;
    program.standardInput = ChildProcess::kNull;
    program.standardOutput = ChildProcess::kNull;
    program.standardError = ChildProcess::kNull;
    return program;
}

void openWithDesktop(const std::string& target) {
    ChildProcess opener = detached("xdg-open");
    opener.arguments = {target};
    [[maybe_unused]] const bool isStarted = opener.startDetached();
}

} // namespace

void openFile(const std::string& path) {
    openWithDesktop(path);
}

void openUrl(const std::string& url) {
    openWithDesktop(url);
}

std::optional<std::string> launchApplication(const std::string& bundlePath) {
    if (!isFolder(bundlePath)) {
        return "The application " + bundlePath + " does not exist";
    }
    const auto name = propertyListString(bundlePath + "/Contents/Info.plist", "CFBundleExecutable");
    if (!name || name->empty() || name->find('/') != std::string::npos) {
        return "The application " + bundlePath + " does not name its executable";
    }
    const std::string executable = bundlePath + "/Contents/MacOS/" + *name;
    if (!detached(executable).startDetached()) {
        return "The executable " + executable + " could not be started: " + systemErrorText(errno);
    }
    return std::nullopt;
}
