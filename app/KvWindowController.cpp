#include "app/KvWindowController.h"

#include "platform/Alert.h"
#include "platform/Log.h"
#include "platform/Text.h"
#include "report/Leave.h"
#include "transfer/CurlLibrary.h"
#include "ui/ViewController.h"

#include <QCloseEvent>
#include <QCursor>
#include <QGuiApplication>
#include <QScreen>

namespace {

class MainWindow : public QWidget {
  public:
    explicit MainWindow(KvWindowController& delegate) : delegate_(delegate) {}

  protected:
    void closeEvent(QCloseEvent* event) override {
        // Only the window system sends spontaneous events: the user asked to close.
        if (event->spontaneous()) {
            delegate_.windowShouldClose();
        }
        delegate_.windowWillClose();
        event->accept();
    }

  private:
    KvWindowController& delegate_;
};

} // namespace

KvWindowController::KvWindowController()
    : window_(std::make_unique<MainWindow>(*this)),
      content_(std::make_unique<ViewController>(window_.get())) {
    content_->viewDidLoad();
    window_->setFixedSize(content_->view()->size());
}

KvWindowController::~KvWindowController() = default;

void KvWindowController::windowDidLoad() {
    window_->setWindowTitle(viewText("Pellomar下载器"));
    initialiseCurlLibrary();
}

void KvWindowController::windowShouldClose() {
    NSLog("window close");
    leave();
}

void KvWindowController::windowWillClose() {
    Alert::stopModal(0);
    NSLog("window closeEx");
    submitAndCleanUp();
}

void KvWindowController::showWindow() {
    const QScreen* const pointed = QGuiApplication::screenAt(QCursor::pos());
    const QScreen& screen = pointed == nullptr ? *QGuiApplication::primaryScreen() : *pointed;
    QRect place(QPoint(), window_->size());
    place.moveCenter(screen.availableGeometry().center());
    window_->setGeometry(place);
    window_->show();
}
