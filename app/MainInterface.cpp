#include "app/MainInterface.h"

#include "app/AppDelegate.h"
#include "app/KvWindowController.h"
#include "platform/Application.h"
#include "platform/Bundle.h"
#include "platform/MainThread.h"
#include "platform/StandardStreams.h"
#include "platform/Text.h"
#include "ui/Leave.h"

#include <QApplication>
#include <QIcon>
#include <QStyleFactory>

int NSApplicationMain(int& argc, char** argv) {
    occupyStandardStreams();
    QApplication application(argc, argv);
    QApplication::setApplicationName("PellomarDownloader");
    QGuiApplication::setDesktopFileName("pellomar-downloader");
    // One look on every desktop, and no theme's plugin to load.
    QApplication::setStyle(QStyleFactory::create("Fusion"));
    // Named, so that a desktop of another language does not show Chinese in another's letter forms or weight.
    QFont font = QApplication::font();
    font.setFamilies({"Noto Sans CJK SC", "Source Han Sans SC", "WenQuanYi Micro Hei", font.family()});
    QApplication::setFont(font);
    QApplication::setWindowIcon(QIcon(viewText(bundleResourcePath("AppIcon", "png"))));
    MainThread::attach();

    AppDelegate delegate;
    QObject::connect(&application, &QCoreApplication::aboutToQuit,
                     [&delegate] { delegate.applicationWillTerminate(); });

    KvWindowController controller;
    controller.windowDidLoad();
    controller.showWindow();
    delegate.applicationDidFinishLaunching();

    const int result = QApplication::exec();
    // Workers may be at work still.
    exitProcess(result);
}
