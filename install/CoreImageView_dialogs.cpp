#include "BuildConstants.h"
#include "platform/Alert.h"
#include "platform/FileManager.h"
#include "platform/Folders.h"
#include "platform/Log.h"
#include "platform/Workspace.h"
#include "ui/CoreImageView.h"

namespace {

std::string flagFolder() {
    return NSHomeDirectory() + "/Library/Application Support/PellomarData";
}

// While this file exists, the product overwrites the games that were installed in it.
std::string flagFile() {
    return flagFolder() + "/CoverInstallFlag";
}

} // namespace

void CoreImageView::isCoverInstall() {
    Alert question;
    question.messageText = "安装向导";
    question.informativeText = "是否保留已安装游戏和应用";
    question.buttons = {"确定", "取消"};
    // Closing the dialog must not count as consent to remove the games.
    question.mustBeAnswered = true;
    const int answer = question.runModal();
    if (answer == Alert::kFirstButton) {
        _isCoverInstall = false;
    } else if (answer == Alert::kSecondButton) {
        _isCoverInstall = true;
    }
    NSLog("keep installed games:%s", _isCoverInstall ? "no" : "yes");
    if (!_isCoverInstall) {
        return;
    }
    if (!fileExists(flagFolder())) {
        static_cast<void>(createDirectory(flagFolder()));
    }
    static_cast<void>(createFile(flagFile()));
}

void CoreImageView::removeCoverFile() {
    if (fileExists(flagFile())) {
        static_cast<void>(removeItem(flagFile()));
    }
}

void CoreImageView::installFaildGuide() {
    Alert guide;
    guide.messageText = "检测到您的电脑未能成功安装驱动程序，请前往系统偏好设置允许系统安装驱动程序。\n"
                        "待设置完成后请点击重试。";
    guide.buttons = {"立即前往设置"};
    const int answer = guide.runModal();
    if (answer == Alert::kFirstButton) {
        openFile("/System/Library/PreferencePanes/Security.prefPane");
    } else if (answer == Alert::kSecondButton) {
        openUrl(constants::kHelpUrl);
    }
}

void CoreImageView::installFaildDueToSip() {
    Alert guide;
    guide.messageText = "安装失败，检测到您的系统与驱动签名不兼容。点击“立即前往”查看解决方案。";
    guide.buttons = {"立即前往"};
    const int answer = guide.runModal();
    if (answer == Alert::kFirstButton || answer == Alert::kSecondButton) {
        openUrl(constants::kHelpUrl);
    }
}
