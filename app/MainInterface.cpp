#include "app/MainInterface.h"

#include "BuildConstants.h"
#include "app/AppDelegate.h"
#include "app/KvWindowController.h"
#include "base/StandardDescriptors.h"
#include "platform/Application.h"
#include "platform/Bundle.h"
#include "platform/Log.h"
#include "platform/MainThread.h"
#include "platform/OutputStreams.h"
#include "platform/SystemVersion.h"
#include "platform/Text.h"
#include "transfer/CurlLibrary.h"

#include <QApplication>
#include <QIcon>
#include <QSessionManager>
#include <QStyleFactory>
#include <QSysInfo>

namespace {

/// Logs what support needs to know, without the names of the machine or the user.
void logWhatRuns(qreal scale) {
    const SystemVersion version = systemVersion();
    NSLog("PellomarDownloader %s on %s, %s %s %s, which counts as %d.%d.%d", constants::kVersion,
          qPrintable(QSysInfo::prettyProductName()), qPrintable(QSysInfo::kernelType()),
          qPrintable(QSysInfo::kernelVersion()), qPrintable(QSysInfo::currentCpuArchitecture()),
          version.major, version.minor, version.bugFix);
    NSLog("Qt %s, %s at scale %g, %s", qVersion(), qPrintable(QGuiApplication::platformName()), scale,
          curlLibraryVersion().c_str());
}

} // namespace

void setUpLook() {
    // Built in: it needs no theme plugin.
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    // By name, since a desktop in another language may choose a font with other letter forms or another
    // weight.
    QFont font = QApplication::font();
    font.setFamilies({"Noto Sans CJK SC", "Source Han Sans SC", "WenQuanYi Micro Hei", font.family()});
    QApplication::setFont(font);
}

int NSApplicationMain(int& argc, char** argv) {
    occupyStandardDescriptors();
    ignoreBrokenPipes();
    QApplication application(argc, argv);
    QApplication::setApplicationName("PellomarDownloader");
    QGuiApplication::setDesktopFileName("pellomar-downloader");
    setUpLook();
    QApplication::setWindowIcon(QIcon(viewText(bundleResourcePath("AppIcon", "png"))));
    MainThread::attach();

    AppDelegate delegate;
    QObject::connect(&application, &QCoreApplication::aboutToQuit,
                     [&delegate] { delegate.applicationWillTerminate(); });
    const auto neverRestart = [](QSessionManager& session) {
        session.setRestartHint(QSessionManager::RestartNever);
    };
    QObject::connect(&application, &QGuiApplication::commitDataRequest, neverRestart);
    QObject::connect(&application, &QGuiApplication::saveStateRequest, neverRestart);

    KvWindowController controller;
    controller.windowDidLoad();
    controller.showWindow();
    delegate.applicationDidFinishLaunching();
    logWhatRuns(controller.window()->devicePixelRatioF());

    const int result = QApplication::exec();
    // Workers may still be running, so nothing is destroyed.
    exitProcess(result);
}
