#include "download/TemporaryFile.h"
#include "install/PrivilegedCommand.h"
#include "install/Product.h"
#include "install/SystemVersionRule.h"
#include "install/WordTests.h"
#include "platform/FileManager.h"
#include "platform/LeakChecker.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "report/WebStatic.h"
#include "ui/CoreImageView.h"
#include "ui/StatusTexts.h"

#include <cstdio>

namespace {

// The driver's tools report to the log file, too.
void printDriverOutput(const InstallAttempt& attempt) {
    puts(attempt.output.c_str());
}

void logDriverToolFailure(const InstallAttempt& attempt) {
    if (attempt.authStatus != errAuthorizationSuccess) {
        NSLog("install vbox drive faild");
        NSLog("errAuthorizationFaild");
    }
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
        fileExists(kApplicationPath, &attempt->existingAppIsDir);
        if (attempt->existingAppIsDir) {
            MainThread::performAndWait([this] { isCoverInstall(); });
        }
    }
    WorkerThread::start([this, attempt] { installWorker(*attempt); });
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
    executeWebStatic(isRetry ? "825" : "826");
    AuthorizationFree(attempt.authRef, kAuthorizationFlagDestroyRights);
    startTovaniPlayer(nullptr);
}

bool CoreImageView::removeOldApplication(InstallAttempt& attempt) {
    updateStatus(status::kUninstalling);
    ToolPipe pipe = runPrivilegedCommand(attempt, "/bin/rm", {"-rf", kApplicationPath});
    if (pipe == nullptr) {
        // The panel stays silent here, with every button hidden.
        giveUpRights(attempt);
        return false;
    }
    readAndReap(attempt, std::move(pipe));
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
    executeWebStatic("817");
    NSLog("Installing Pellomar");
    ToolPipe pipe =
        runPrivilegedCommand(attempt, "/usr/sbin/installer", {"-pkg", packagePath(), "-target", "/"});
    if (attempt.authStatus != errAuthorizationSuccess) {
        updateStatus(status::kInstallerDidNotStart);
        executeWebStatic("822");
        giveUpRights(attempt);
        return false;
    }
    // Appended to what the removal printed: the words of either count against the installation.
    readAndReap(attempt, std::move(pipe));
    _bAlreadyInstallPkg = !saysFailure(attempt.output);
    if (_bAlreadyInstallPkg) {
        NSLog("Install Pellomar Success:%s", attempt.output.c_str());
        executeWebStatic("818");
        return true;
    }
    NSLog("Install Pellomar failed:%s", attempt.output.c_str());
    executeWebStatic("822");
    updateStatus(status::kInstallFailed);
    enterState(ScreenState::DownloadAgain);
    // The rights are not given up on this path.
    leftUnreleasedOnPurpose(attempt.authRef);
    return false;
}

bool CoreImageView::queryDriver(InstallAttempt& attempt) {
    updateStatus(status::kQueryingDriver);
    ToolPipe pipe = runPrivilegedCommand(attempt, "/usr/sbin/kextstat", {"-b", kDriverIdentifier});
    if (pipe == nullptr) {
        giveUpRights(attempt);
        _retryInstallVbox = true;
        updateStatus(status::kDriverFailed);
        enterState(ScreenState::InstallAgain);
        return false;
    }
    attempt.output.clear();
    readAndReap(attempt, std::move(pipe));
    printDriverOutput(attempt);
    logDriverToolFailure(attempt);
    if (saysDriverLoaded(attempt.output)) {
        return true;
    }
    if (isOlderThan10_14_5(systemVersion())) {
        _retryInstallVbox = true;
        driverFailedOnOlderSystem(attempt, "823");
    } else {
        driverFailedOnNewerSystem(attempt, "824");
    }
    return false;
}

bool CoreImageView::startDriver(InstallAttempt& attempt) {
    updateStatus(status::kInstallingDriver);
    ToolPipe pipe = runPrivilegedCommand(
        attempt, "/Library/Application Support/NorvikEmu/VirtualBoxStartup.sh", {"restart"});
    if (pipe == nullptr) {
        giveUpRights(attempt);
        updateStatus(status::kDriverFailed);
        enterState(ScreenState::InstallAgain);
        return false;
    }
    attempt.output.clear();
    readAndReap(attempt, std::move(pipe));
    printDriverOutput(attempt);
    logDriverToolFailure(attempt);
    if (!saysDriverStartFailed(attempt.output)) {
        return true;
    }
    if (isOlderThan10_14_5(systemVersion())) {
        driverFailedOnOlderSystem(attempt, nullptr);
    } else {
        driverFailedOnNewerSystem(attempt, nullptr);
    }
    return false;
}

void CoreImageView::driverFailedOnOlderSystem(InstallAttempt& attempt, const char* event) {
    NSLog("install vbox drive faild");
    giveUpRights(attempt);
    updateStatus(status::kDriverFailed);
    enterState(ScreenState::InstallAgain);
    if (event != nullptr) {
        executeWebStatic(event);
    }
    MainThread::performAndWait(installFaildGuide);
}

void CoreImageView::driverFailedOnNewerSystem(InstallAttempt& attempt, const char* event) {
    if (event != nullptr) {
        executeWebStatic(event);
    }
    updateStatus(status::kSeeForum);
    NSLog("10.14.5以上系统没有关闭sip");
    giveUpRights(attempt);
    MainThread::performAndWait(installFaildDueToSip);
}
