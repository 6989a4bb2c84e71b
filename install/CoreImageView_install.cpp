#include "download/TemporaryFile.h"
#include "install/InstallAttempt.h"
#include "install/SystemVersionRule.h"
#include "install/WordTests.h"
#include "platform/FileManager.h"
#include "platform/LeakChecker.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/SystemVersion.h"
#include "platform/WorkerThread.h"
#include "report/WebStatic.h"
#include "rights/PrivilegedCommands.h"
#include "ui/CoreImageView.h"
#include "ui/StatusTexts.h"

#include <cstdio>

namespace {

/// Whether the tool started. Its output is appended to the attempt's.
bool run(InstallAttempt& attempt, PrivilegedCommand command, const std::string& package = {},
         void (*afterReading)(const std::string& output) = nullptr) {
    const std::vector<std::string> line = commandLine(command, package);
    const CommandStart start = runPrivilegedCommand(line.front(), {line.begin() + 1, line.end()},
                                                    attempt.authRef.get(), attempt.output, afterReading);
    attempt.authStatus = start.authStatus;
    return start.pipe != nullptr;
}

} // namespace

void CoreImageView::downloadFinished() {
    MainThread::performAndWait([this] {
        _status->setStringValue(status::kDownloaded);
        _speed->setStringValue("");
    });
    enterState(ScreenState::Installing);
    killTovaniPlayer();

    const auto attempt = std::make_shared<InstallAttempt>();
    if (!obtainRights(*attempt)) {
        updateStatus(status::kNoRights);
        enterState(ScreenState::InstallAgain);
        return;
    }
    if (!_bAlreadyInstallPkg) {
        attempt->existingAppIsDir = isFolder(kApplicationPath);
        if (attempt->existingAppIsDir) {
            MainThread::performAndWait([this] { isCoverInstall(); });
        }
    }
    startWorkerThread([this, attempt] { installWorker(*attempt); });
}

void CoreImageView::installWorker(InstallAttempt& attempt) {
    if (!_bAlreadyInstallPkg) {
        static_cast<void>(removeItem(packagePath()));
        static_cast<void>(moveItem(temporaryFilePath(), packagePath()));
        if (attempt.existingAppIsDir && !removeOldApplication(attempt)) {
            return;
        }
        if (!installPackage(attempt)) {
            return;
        }
    }
    const bool isRetry = _retryInstallVbox;
    if (!(isRetry ? startDriver(attempt) : queryDriver(attempt))) {
        return;
    }
    executeWebStatic(isRetry ? event::kDriverStarted : event::kDriverFound);
    attempt.authRef.reset();
    startTovaniPlayer(nullptr);
}

bool CoreImageView::removeOldApplication(InstallAttempt& attempt) {
    updateStatus(status::kUninstalling);
    if (!run(attempt, PrivilegedCommand::RemoveApplication)) {
        // On purpose, no status text reports this and every button stays hidden.
        removeCoverFile();
        attempt.authRef.reset();
        return false;
    }
    if (attempt.authStatus == errAuthorizationSuccess) {
        NSLog("uninstall Pellomar Success");
    }
    if (saysFailure(attempt.output)) {
        NSLog("uninstall Pellomar failed");
    }
    return true;
}

bool CoreImageView::installPackage(InstallAttempt& attempt) {
    updateStatus(status::kInstalling);
    executeWebStatic(event::kInstallStarted);
    NSLog("Installing Pellomar");
    // The output is appended to the removal's: failure words of either count against the installation.
    run(attempt, PrivilegedCommand::InstallPackage, packagePath());
    if (attempt.authStatus != errAuthorizationSuccess) {
        removeCoverFile();
        updateStatus(status::kInstallerDidNotStart);
        executeWebStatic(event::kInstallFailed);
        attempt.authRef.reset();
        return false;
    }
    _bAlreadyInstallPkg = !saysFailure(attempt.output);
    if (_bAlreadyInstallPkg) {
        NSLog("Install Pellomar Success:%s", attempt.output.c_str());
        executeWebStatic(event::kInstalled);
        return true;
    }
    NSLog("Install Pellomar failed:%s", attempt.output.c_str());
    executeWebStatic(event::kInstallFailed);
    removeCoverFile(); // the old application stays, and with it its games
    updateStatus(status::kInstallFailed);
    enterState(ScreenState::DownloadAgain);
    // Not freed on this path, on purpose. After an installer that failed, the rights service allows only the
    // driver's query.
    leftUnreleasedOnPurpose(attempt.authRef.release());
    return false;
}

bool CoreImageView::queryDriver(InstallAttempt& attempt) {
    updateStatus(status::kQueryingDriver);
    if (!runDriverTool(attempt, PrivilegedCommand::QueryDriver)) {
        return false;
    }
    if (!saysDriverLoaded(attempt.output)) {
        driverFailed(attempt, DriverPass::First);
        return false;
    }
    return true;
}

bool CoreImageView::startDriver(InstallAttempt& attempt) {
    updateStatus(status::kInstallingDriver);
    if (!runDriverTool(attempt, PrivilegedCommand::StartDriver)) {
        return false;
    }
    if (saysDriverStartFailed(attempt.output)) {
        driverFailed(attempt, DriverPass::Retry);
        return false;
    }
    return true;
}

bool CoreImageView::runDriverTool(InstallAttempt& attempt, PrivilegedCommand command) {
    attempt.output.clear();
    const auto print = [](const std::string& output) { puts(output.c_str()); }; // into the log file, whole
    if (!run(attempt, command, {}, print)) {
        attempt.authRef.reset();
        _retryInstallVbox = true;
        updateStatus(status::kDriverFailed);
        enterState(ScreenState::InstallAgain);
        return false;
    }
    if (attempt.authStatus != errAuthorizationSuccess) {
        NSLog("install vbox drive faild");
        NSLog("errAuthorizationFaild");
    }
    return true;
}

void CoreImageView::driverFailed(InstallAttempt& attempt, DriverPass pass) {
    // A failure in the retry pass is not reported again.
    const auto report = [pass](const char* code) {
        if (pass == DriverPass::First) {
            executeWebStatic(code);
        }
    };
    if (isOlderThan10_14_5(systemVersion())) {
        _retryInstallVbox = true;
        NSLog("install vbox drive faild");
        attempt.authRef.reset();
        updateStatus(status::kDriverFailed);
        enterState(ScreenState::InstallAgain);
        report(event::kDriverBlocked);
        MainThread::performAndWait(installFaildGuide);
    } else {
        report(event::kDriverNotAccepted);
        updateStatus(status::kSeeForum);
        NSLog("10.14.5以上系统没有关闭sip");
        attempt.authRef.reset();
        MainThread::performAndWait(installFaildDueToSip);
    }
}
